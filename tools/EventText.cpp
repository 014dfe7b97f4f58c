#include "tools/EventText.h"

#include <cstdint>
#include <cstdio>

#include "tools/EventJson.h"
#include "tools/Hexadecimal.h"
#include "tools/Printable.h"

namespace tools {

namespace {

constexpr const char* RESET = "\033[0m";

// What stands in the columns that every kind of event has.
struct Numbers {
    int severity;  // -1: it has none
    unsigned int assertion;
    unsigned int nodeId;
    unsigned int deviceId;
    unsigned int osId;
};

Numbers NumbersOf(const Event& event)
{
    if (event.device != nullptr) {
        const dsmi_event& device = *event.device;
        return {device.severity, device.assertion, device.nodeId, device.deviceId, device.osId};
    }
    const EventInfo& fault = *event.fault;
    return {-1, fault.assertion, fault.nodeId, fault.deviceId, fault.osId};
}

std::string Hex(uint32_t number)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%04X", number);
    return text;
}

// The higher the severity, the warmer; without one, an asserted event stands out from one that is not.
const char* ColourOf(const Event& event, const Numbers& numbers)
{
    if (event.kind == EventKind::PmLost) {
        return "\033[1;31m";
    }
    if (numbers.assertion == 0) {
        return "\033[32m";
    }
    if (numbers.severity < 0) {
        return "\033[33m";
    }
    static constexpr const char* BY_SEVERITY[] = {"\033[36m", "\033[33m", "\033[31m"};
    return BY_SEVERITY[numbers.severity < 3 ? numbers.severity : 2];
}

// "2024-05-06T07:08:09.012345", in UTC with a Z.
std::string FullTime(const RowStyle& style, SystemTime time)
{
    return style.utc ? UtcTime(time) : DateText(time, false) + "T" + TimeOfDayText(time, false);
}

std::string FirstColumn(const RowStyle& style, SystemTime arrival, std::optional<SystemTime> before)
{
    if (style.delta) {
        char text[64];
        const std::chrono::duration<double> delta = arrival - before.value_or(arrival);
        std::snprintf(text, sizeof(text), "%15.6f", delta.count());
        return text;
    }
    return style.shortTimes ? TimeOfDayText(arrival, style.utc) : FullTime(style, arrival);
}

// When the event arose, if its publisher counts nanoseconds since 1970, as this project's do; whatever else it says
// stands as it is. In short without its date if that is the day of arrival, and in milliseconds.
std::string ArisedTime(const RowStyle& style, const Event& event)
{
    constexpr uint64_t EARLIEST = 1000000000ULL * 1000000000;  // in 2001
    constexpr size_t MILLISECONDS = sizeof("07:08:09.012") - 1;
    if (event.device == nullptr) {
        return "-";
    }
    const uint64_t arised = event.device->eventArisedTime;
    if (arised < EARLIEST || arised > static_cast<uint64_t>(std::chrono::nanoseconds::max().count())) {
        return std::to_string(arised);
    }
    const SystemTime time{std::chrono::nanoseconds(arised)};
    if (style.shortTimes && DateText(time, style.utc) == DateText(event.arrival, style.utc)) {
        return TimeOfDayText(time, style.utc).substr(0, MILLISECONDS);
    }
    return FullTime(style, time);
}

// What only some kinds of events have.
std::string Details(const Event& event)
{
    std::string details;
    if (event.device == nullptr) {
        details += " uds=" + Hex(event.uds->udsId);
        for (const DidInfoForCpp& did : event.uds->didInfo) {
            details += " did:" + Hex(did.did) + "=" + ToHexadecimal(did.data.data(), did.data.size());
        }
        return details;
    }
    if (event.device->notifySerialNum != 0) {
        details += " notify=" + std::to_string(event.device->notifySerialNum);
    }
    const std::string reserved = ReservedBytes(*event.device);
    if (reserved.find_first_not_of('0') != std::string::npos) {
        details += " reserved=" + reserved;
    }
    return event.kind == EventKind::PmLost ? details + " (this process manager is gone)" : details;
}

// The columns of a row or of the header. What is too wide for its column moves the others.
struct Columns {
    std::string time, arised, kind, id, severity, assertion, place, serial, resource;
};

std::string Align(const RowStyle& style, const Columns& columns)
{
    const int timeWidth = style.shortTimes || style.delta ? 15 : (style.utc ? 27 : 26);
    const int arisedWidth = style.shortTimes ? 12 : (style.utc ? 27 : 26);
    char text[1024];
    std::snprintf(text, sizeof(text), "%-*s %-*s %-8s %-10s %3s %3s %9s %6s %-*s ", timeWidth, columns.time.c_str(),
                  arisedWidth, columns.arised.c_str(), columns.kind.c_str(), columns.id.c_str(),
                  columns.severity.c_str(), columns.assertion.c_str(), columns.place.c_str(), columns.serial.c_str(),
                  static_cast<int>(style.resourceWidth), columns.resource.c_str());
    return text;
}

}  // namespace

std::string HeaderRow(const RowStyle& style, SystemTime day)
{
    std::string time = "ARRIVED";
    if (style.delta) {
        time = "AFTER (S)";
    } else if (style.shortTimes) {
        time = DateText(day, style.utc) + (style.utc ? " UTC" : "");
    }
    return Align(style, {time, "ARISED", "KIND", "EVENT", "SEV", "ASS", "NODE/D/OS", "SERIAL", "RESOURCE"}) +
           "NAME ...";
}

std::string ToRow(const RowStyle& style, const Event& event, std::optional<SystemTime> before)
{
    const Numbers numbers = NumbersOf(event);
    const std::string place =
        std::to_string(numbers.nodeId) + "/" + std::to_string(numbers.deviceId) + "/" + std::to_string(numbers.osId);
    const std::string row =
        Align(
            style,
            {FirstColumn(style, event.arrival, before), ArisedTime(style, event), KindName(event.kind), Hex(event.Id()),
             numbers.severity < 0 ? "-" : std::to_string(numbers.severity), std::to_string(numbers.assertion), place,
             event.device == nullptr ? "-" : std::to_string(event.device->eventSerialNum), Printable(event.resource)}) +
        Quoted(event.Name()) + Details(event);
    return style.colour ? ColourOf(event, numbers) + row + RESET : row;
}

}  // namespace tools

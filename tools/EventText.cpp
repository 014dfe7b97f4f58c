#include "tools/EventText.h"

#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>

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

std::string FaultDetails(const Event& event)
{
    std::string details = " uds=" + Hex(event.uds->udsId);
    for (const DidInfoForCpp& did : event.uds->didInfo) {
        details += " did:" + Hex(did.did) + "=" + ToHexadecimal(did.data.data(), did.data.size());
    }
    return details;
}

std::string DeviceDetails(const Event& event)
{
    const dsmi_event& device = *event.device;
    std::string details = " serial=" + std::to_string(device.eventSerialNum) +
                          " notify=" + std::to_string(device.notifySerialNum) +
                          " arised=" + std::to_string(device.eventArisedTime);
    const std::string reserved = ReservedBytes(device);
    if (reserved.find_first_not_of('0') != std::string::npos) {
        details += " reserved=" + reserved;
    }
    if (event.kind == EventKind::PmLost) {
        details += " (this process manager is gone)";
    }
    return details;
}

std::string ToColumns(const Event& event, bool colour)
{
    const Numbers numbers = NumbersOf(event);
    const std::string arrival = DateText(event.arrival, false) + " " + TimeOfDayText(event.arrival, false);
    char columns[160];
    std::snprintf(columns, sizeof(columns), "%s  %-8s  %-10s  %3s  %3u  %5u  %6u  %3u  ", arrival.c_str(),
                  KindName(event.kind), Hex(event.Id()).c_str(),
                  numbers.severity < 0 ? "-" : std::to_string(numbers.severity).c_str(), numbers.assertion,
                  numbers.nodeId, numbers.deviceId, numbers.osId);
    const std::string details = event.device == nullptr ? FaultDetails(event) : DeviceDetails(event);
    const std::string line = columns + Quoted(event.Name()) + details;
    return colour ? ColourOf(event, numbers) + line + RESET : line;
}

}  // namespace

std::string ColumnHeader()
{
    char columns[160];
    std::snprintf(columns, sizeof(columns), "%-26s  %-8s  %-10s  %3s  %3s  %5s  %6s  %3s  %s", "ARRIVED", "KIND",
                  "EVENT", "SEV", "ASS", "NODE", "DEVICE", "OS", "NAME AND THE REST");
    return columns;
}

std::string Describe(TextStyle style, const Event& event)
{
    return style == TextStyle::Json ? ToLine(ToJson(event)) : ToColumns(event, style == TextStyle::Colour);
}

}  // namespace tools

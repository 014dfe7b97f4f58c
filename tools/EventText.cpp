#include "tools/EventText.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

namespace tools {

namespace {

constexpr size_t DATE_LENGTH = sizeof("2024-05-06") - 1;
constexpr size_t MILLISECONDS_LENGTH = sizeof("07:08:09.012") - 1;

// What does not apply to this kind of event is a dash.
std::string NumberText(const Json& event, const char* key)
{
    const auto found = event.find(key);
    return found == event.end() ? "-" : found->dump();
}

// The higher the severity, the warmer; without one, an asserted event stands out from one that is not.
const char* ColourOf(const Json& event)
{
    if (IsPmLost(event)) {
        return "\033[1;31m";
    }
    if (event["assertion"] == 0) {
        return "\033[32m";
    }
    static constexpr const char* BY_SEVERITY[] = {"\033[36m", "\033[33m", "\033[31m"};
    return BY_SEVERITY[std::min(event.value("severity", 1), 2)];
}

std::string FirstColumn(const RowStyle& style, SystemTime arrival, std::optional<SystemTime> before)
{
    if (style.delta) {
        char text[64];
        const std::chrono::duration<double> delta = arrival - before.value_or(arrival);
        std::snprintf(text, sizeof(text), "%15.6f", delta.count());
        return text;
    }
    return TimeText(arrival, style.utc).substr(style.shortTimes ? DATE_LENGTH + 1 : 0);
}

// When the event arose, if its publisher counts nanoseconds since 1970, as this project's do; whatever else it says
// stands as it is. In short without its date if that is the day of arrival, and in milliseconds.
std::string ArisedTime(const RowStyle& style, const Json& event, SystemTime arrival)
{
    constexpr uint64_t EARLIEST = 1000000000ULL * 1000000000;  // in 2001
    const uint64_t arised = event.value("eventArisedTime", uint64_t{0});
    if (arised < EARLIEST) {
        return NumberText(event, "eventArisedTime");
    }
    const std::string text = TimeText(SystemTime(Microseconds(arised / 1000)), style.utc);
    if (style.shortTimes && text.compare(0, DATE_LENGTH, TimeText(arrival, style.utc), 0, DATE_LENGTH) == 0) {
        return text.substr(DATE_LENGTH + 1, MILLISECONDS_LENGTH);
    }
    return text;
}

// The name, and what only some kinds of events have.
std::string Details(const Json& event)
{
    std::string details = Quoted(event["eventName"].get<std::string>());
    if (event.contains("udsId")) {
        details += " uds=" + Hex(event["udsId"].get<uint32_t>());
        for (const Json& did : event["dids"]) {
            details += " did:" + Hex(did["did"].get<uint32_t>()) + "=" + did["data"].get<std::string>();
        }
    }
    if (event.value("notifySerialNum", 0) != 0) {
        details += " notify=" + NumberText(event, "notifySerialNum");
    }
    const std::string reserved = event.value("reserved", "");
    if (reserved.find_first_not_of('0') != std::string::npos) {
        details += " reserved=" + reserved;
    }
    return IsPmLost(event) ? details + " (this process manager is gone)" : details;
}

// The columns of a row or of the header. What is too wide for its column moves the others.
struct Columns {
    std::string time, arised, kind, id, severity, assertion, place, serial, resource;
};

std::string Align(const RowStyle& style, const Columns& columns)
{
    const int full = style.utc ? 27 : 26;
    char text[1024];
    std::snprintf(text, sizeof(text), "%-*s %-*s %-8s %-10s %3s %3s %9s %6s %-*s ",
                  style.shortTimes || style.delta ? 15 : full, columns.time.c_str(), style.shortTimes ? 12 : full,
                  columns.arised.c_str(), columns.kind.c_str(), columns.id.c_str(), columns.severity.c_str(),
                  columns.assertion.c_str(), columns.place.c_str(), columns.serial.c_str(),
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
        time = TimeText(day, style.utc).substr(0, DATE_LENGTH) + (style.utc ? " UTC" : "");
    }
    return Align(style, {time, "ARISED", "KIND", "EVENT", "SEV", "ASS", "NODE/D/OS", "SERIAL", "RESOURCE"}) +
           "NAME ...";
}

std::string ToRow(const RowStyle& style, const Json& event, SystemTime arrival, std::optional<SystemTime> before)
{
    const std::string place =
        NumberText(event, "nodeId") + "/" + NumberText(event, "deviceId") + "/" + NumberText(event, "osId");
    const std::string row =
        Align(style,
              {FirstColumn(style, arrival, before), ArisedTime(style, event, arrival), event["kind"].get<std::string>(),
               Hex(event["eventId"].get<uint32_t>()), NumberText(event, "severity"), NumberText(event, "assertion"),
               place, NumberText(event, "eventSerialNum"), Printable(event["resource"].get<std::string>())}) +
        Details(event);
    return style.colour ? ColourOf(event) + row + "\033[0m" : row;
}

}  // namespace tools

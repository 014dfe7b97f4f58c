#include "tools/EventText.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

namespace tools {

namespace {

using Json = nlohmann::ordered_json;

// The event that the library reports when a process manager's stream is lost; the name is that of the process.
constexpr uint32_t PROCESS_MANAGER_LOST = 0x8C03A000;

constexpr const char* RESET = "\033[0m";

// What every kind of event has, and the rest as text.
struct Row {
    const char* kind;
    uint32_t eventId;
    std::optional<uint8_t> severity;
    uint8_t assertion;
    uint32_t nodeId;
    uint32_t deviceId;
    uint32_t osId;
    std::string details;
};

std::string Hex(const void* data, size_t size)
{
    static constexpr char DIGITS[] = "0123456789abcdef";
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::string text;
    text.reserve(2 * size);
    for (size_t i = 0; i < size; ++i) {
        text += DIGITS[bytes[i] >> 4];
        text += DIGITS[bytes[i] & 0xF];
    }
    return text;
}

std::string Hex(uint32_t number, int digits)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%0*X", digits, number);
    return text;
}

template <size_t N>
std::string BoundedText(const char (&area)[N])
{
    return std::string(area, strnlen(area, N));
}

// In double quotes, with everything escaped that is not printable ASCII.
std::string Quoted(const std::string& text)
{
    return Json(text).dump(-1, ' ', true, Json::error_handler_t::replace);
}

std::string ToLine(const Json& object)
{
    return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// "2024-05-06 07:08:09.012345", local time or UTC.
std::string TimeText(ArrivalTime time, bool utc)
{
    const auto sinceEpoch = std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
    const auto seconds = static_cast<time_t>(sinceEpoch / 1000000);
    tm fields{};
    if (utc) {
        gmtime_r(&seconds, &fields);
    } else {
        localtime_r(&seconds, &fields);
    }
    char text[64];
    const size_t length = std::strftime(text, sizeof(text), utc ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &fields);
    std::snprintf(text + length, sizeof(text) - length, ".%06d%s", static_cast<int>(sinceEpoch % 1000000),
                  utc ? "Z" : "");
    return text;
}

// The bytes that have no field of their own, in the order of their offsets.
std::string ReservedBytes(const dsmi_event& event)
{
    return Hex(event.reserved0, sizeof(event.reserved0)) + Hex(&event.reserved14, 1) +
           Hex(event.reserved16, sizeof(event.reserved16)) + Hex(event.reserved28, sizeof(event.reserved28)) +
           Hex(event.reserved329, sizeof(event.reserved329));
}

const char* KindOf(ReportEvent::EventType family, const dsmi_event& event)
{
    if (family == ReportEvent::SECURITY_EVENT) {
        return "security";
    }
    return event.eventId == PROCESS_MANAGER_LOST ? "pm-lost" : "device";
}

// The higher the severity, the warmer; without one, an asserted event stands out from one that is not.
const char* ColourOf(const Row& row)
{
    if (std::strcmp(row.kind, "pm-lost") == 0) {
        return "\033[1;31m";
    }
    if (!row.severity) {
        return row.assertion != 0 ? "\033[33m" : "\033[32m";
    }
    if (row.assertion == 0) {
        return "\033[32m";
    }
    static constexpr const char* BY_SEVERITY[] = {"\033[36m", "\033[33m", "\033[31m"};
    return BY_SEVERITY[*row.severity < 3 ? *row.severity : 2];
}

std::string ToColumns(const Row& row, ArrivalTime arrival, bool colour)
{
    char columns[160];
    std::snprintf(columns, sizeof(columns), "%s  %-8s  %-10s  %3s  %3u  %5u  %6u  %3u  ",
                  TimeText(arrival, false).c_str(), row.kind, Hex(row.eventId, 4).c_str(),
                  row.severity ? std::to_string(*row.severity).c_str() : "-", row.assertion, row.nodeId, row.deviceId,
                  row.osId);
    const std::string line = columns + row.details;
    return colour ? ColourOf(row) + line + RESET : line;
}

Json FaultObject(ArrivalTime arrival, const EventInfo& event, const UDSInfoForCpp& uds)
{
    Json dids = Json::array();
    for (const DidInfoForCpp& did : uds.didInfo) {
        dids.push_back({{"did", did.did}, {"data", Hex(did.data.data(), did.data.size())}});
    }
    return {{"kind", "fault"},
            {"arrival", TimeText(arrival, true)},
            {"eventId", event.eventId},
            {"eventName", BoundedText(event.eventPara.buf)},
            {"assertion", event.assertion},
            {"nodeId", event.nodeId},
            {"deviceId", event.deviceId},
            {"osId", event.osId},
            {"udsId", uds.udsId},
            {"dids", std::move(dids)}};
}

Json DeviceObject(ArrivalTime arrival, ReportEvent::EventType family, const dsmi_event& event)
{
    return {{"kind", KindOf(family, event)},
            {"arrival", TimeText(arrival, true)},
            {"eventId", event.eventId},
            {"eventName", BoundedText(event.eventName)},
            {"severity", event.severity},
            {"assertion", event.assertion},
            {"nodeId", event.nodeId},
            {"deviceId", event.deviceId},
            {"osId", event.osId},
            {"eventSerialNum", event.eventSerialNum},
            {"notifySerialNum", event.notifySerialNum},
            {"eventArisedTime", event.eventArisedTime},
            {"reserved", ReservedBytes(event)}};
}

Row FaultRow(const EventInfo& event, const UDSInfoForCpp& uds)
{
    std::string details = Quoted(BoundedText(event.eventPara.buf)) + " uds=" + Hex(uds.udsId, 4);
    for (const DidInfoForCpp& did : uds.didInfo) {
        details += " did:" + Hex(did.did, 4) + "=" + Hex(did.data.data(), did.data.size());
    }
    return {"fault",      event.eventId,  std::nullopt, event.assertion,
            event.nodeId, event.deviceId, event.osId,   std::move(details)};
}

Row DeviceRow(ReportEvent::EventType family, const dsmi_event& event)
{
    std::string details = Quoted(BoundedText(event.eventName)) + " serial=" + std::to_string(event.eventSerialNum) +
                          " notify=" + std::to_string(event.notifySerialNum) +
                          " arised=" + std::to_string(event.eventArisedTime);
    const std::string reserved = ReservedBytes(event);
    if (reserved.find_first_not_of('0') != std::string::npos) {
        details += " reserved=" + reserved;
    }
    const char* kind = KindOf(family, event);
    if (std::strcmp(kind, "pm-lost") == 0) {
        details += " (this process manager is gone)";
    }
    return {kind,         event.eventId,  event.severity, event.assertion,
            event.nodeId, event.deviceId, event.osId,     std::move(details)};
}

}  // namespace

std::string ColumnHeader()
{
    char columns[160];
    std::snprintf(columns, sizeof(columns), "%-26s  %-8s  %-10s  %3s  %3s  %5s  %6s  %3s  %s", "ARRIVED", "KIND",
                  "EVENT", "SEV", "ASS", "NODE", "DEVICE", "OS", "NAME AND THE REST");
    return columns;
}

std::string DescribeFault(TextStyle style, ArrivalTime arrival, const EventInfo& event, const UDSInfoForCpp& uds)
{
    if (style == TextStyle::Json) {
        return ToLine(FaultObject(arrival, event, uds));
    }
    return ToColumns(FaultRow(event, uds), arrival, style == TextStyle::Colour);
}

std::string DescribeDevice(TextStyle style, ArrivalTime arrival, ReportEvent::EventType family, const dsmi_event& event)
{
    if (style == TextStyle::Json) {
        return ToLine(DeviceObject(arrival, family, event));
    }
    return ToColumns(DeviceRow(family, event), arrival, style == TextStyle::Colour);
}

std::string JsonDescription()
{
    return "With --json, each line is one object with these keys, in this order:\n"
           "  kind             fault, device, security, or pm-lost: process manager eventName is gone\n"
           "  arrival          when the event arrived here: UTC, RFC 3339, microseconds\n"
           "  eventId          number\n"
           "  eventName        text; bytes that are not UTF-8 are replaced by U+FFFD\n"
           "  severity         number (not in fault)\n"
           "  assertion, nodeId, deviceId, osId\n"
           "                   numbers\n"
           "  eventSerialNum, notifySerialNum, eventArisedTime\n"
           "                   numbers (not in fault)\n"
           "  reserved         hexadecimal: the bytes without a field, by offset (not in fault)\n"
           "  udsId            number (only in fault)\n"
           "  dids             array of {\"did\": number, \"data\": hexadecimal text} (only in fault)\n";
}

}  // namespace tools

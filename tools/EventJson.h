// Events in the form in which the programs carry, print, record and replay them: JSON objects. It is a stable format;
// docs/json.md describes it and says what may change. Pure functions, any thread.
#ifndef REPORT_EVENT_TOOLS_EVENT_JSON_H
#define REPORT_EVENT_TOOLS_EVENT_JSON_H

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "report_event/EventRecord.h"
#include "report_event/EventTypes.h"
#include "tools/Text.h"

namespace tools {

using Json = nlohmann::ordered_json;  // its keys keep their order

// The resource of events that come from the fault-reporting library.
constexpr std::string_view FAULT_REPORTING = "fault-reporting";

// The kind of event that tells the loss of a process manager. It is one only if the fault-reporting library tells it.
constexpr const char* PM_LOST = "pm-lost";

// The object of an event that came from `resource`. A program may add keys of its own behind those of the format.
Json ToJson(std::string_view resource, SystemTime arrival, const EventInfo& fault, const UDSInfoForCpp& uds);
Json ToJson(std::string_view resource, SystemTime arrival, ReportEvent::EventType family, const dsmi_event& device);

// What the JSON form takes from an event: one list for writing an object and for reading one. `visit` is called for
// each field in the order of the format; the event may be const or not.

// The numbers behind the identifier and the name, with their keys.
template <typename Device, typename Visit>
void VisitDeviceNumbers(Device& event, const Visit& visit)
{
    visit("severity", event.severity);
    visit("assertion", event.assertion);
    visit("nodeId", event.nodeId);
    visit("deviceId", event.deviceId);
    visit("osId", event.osId);
    visit("eventSerialNum", event.eventSerialNum);
    visit("notifySerialNum", event.notifySerialNum);
    visit("eventArisedTime", event.eventArisedTime);
}

// The same of a fault.
template <typename Fault, typename UdsId, typename Visit>
void VisitFaultNumbers(Fault& event, UdsId& udsId, const Visit& visit)
{
    visit("assertion", event.assertion);
    visit("nodeId", event.nodeId);
    visit("deviceId", event.deviceId);
    visit("osId", event.osId);
    visit("udsId", udsId);
}

// The areas of a device event that have no field.
template <typename Device, typename Visit>
void VisitReserved(Device& event, const Visit& visit)
{
    visit(event.reserved0);
    visit(event.reserved14);
    visit(event.reserved16);
    visit(event.reserved28);
    visit(event.reserved329);
}

bool IsPmLost(const Json& event);

// On one line, without a line feed: valid UTF-8 without control characters, whatever bytes its texts hold.
std::string ToLine(const Json& object);

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_EVENT_JSON_H

// What the JSON form takes from an event: one list for writing an object and for reading one. `visit` is called for
// each field in the order of the format; the event may be const or not.
#ifndef REPORT_EVENT_TOOLS_EVENT_FIELDS_H
#define REPORT_EVENT_TOOLS_EVENT_FIELDS_H

#include "report_event/EventTypes.h"

namespace tools {

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

// The bytes of a device event that have no field: areas and their sizes.
template <typename Device, typename Visit>
void VisitReserved(Device& event, const Visit& visit)
{
    visit(event.reserved0, sizeof(event.reserved0));
    visit(&event.reserved14, sizeof(event.reserved14));
    visit(event.reserved16, sizeof(event.reserved16));
    visit(event.reserved28, sizeof(event.reserved28));
    visit(event.reserved329, sizeof(event.reserved329));
}

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_EVENT_FIELDS_H

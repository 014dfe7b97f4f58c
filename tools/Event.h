// One event as the programs see it, whichever callback or recording brought it.
#ifndef REPORT_EVENT_TOOLS_EVENT_H
#define REPORT_EVENT_TOOLS_EVENT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "report_event/EventRecord.h"
#include "report_event/EventTypes.h"
#include "tools/Times.h"

namespace tools {

enum class EventKind { Fault, Device, Security, PmLost };

// "fault", "device", "security", "pm-lost".
const char* KindName(EventKind kind);
std::optional<EventKind> ParseKind(std::string_view name);

// The resource of events that come from the fault-reporting library.
constexpr std::string_view FAULT_REPORTING = "fault-reporting";

// A fault has `fault` and `uds`, an event of any other kind has `device`. Refers to what a callback was given or to a
// StoredEvent, and lives no longer than that.
struct Event {
    EventKind kind = EventKind::Fault;
    std::string_view resource;
    SystemTime arrival;
    const EventInfo* fault = nullptr;
    const UDSInfoForCpp* uds = nullptr;
    const dsmi_event* device = nullptr;

    uint32_t Id() const
    {
        return device != nullptr ? device->eventId : fault->eventId;
    }
    // The whole area of the name, but for the NULs at its end.
    std::string_view NameBytes() const;
    // The name: up to the first NUL.
    std::string_view Name() const
    {
        return NameBytes().substr(0, NameBytes().find('\0'));
    }
};

Event MakeEvent(std::string_view resource, SystemTime arrival, const EventInfo& fault, const UDSInfoForCpp& uds);
// The loss of a process manager is a kind of its own only if the fault-reporting library tells it.
Event MakeEvent(std::string_view resource, SystemTime arrival, ReportEvent::EventType family, const dsmi_event& device);

// An event that is not being delivered: made from options or read from a recording.
struct StoredEvent {
    EventKind kind = EventKind::Fault;
    std::string resource;               // empty when it is not known
    std::optional<SystemTime> arrival;  // as recorded
    EventInfo fault{};                  // these two of a fault
    UDSInfoForCpp uds;
    dsmi_event device{};  // of any other kind

    // Throws std::invalid_argument when the name does not fit into an event of this kind.
    void SetName(std::string_view name);
    Event View() const;
};

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_EVENT_H

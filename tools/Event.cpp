#include "tools/Event.h"

#include <cstring>
#include <iterator>
#include <stdexcept>

#include "report_event/ResourceNames.h"

namespace tools {

namespace {

constexpr const char* KIND_NAMES[] = {"fault", "device", "security", "pm-lost"};

EventKind KindOf(std::string_view resource, ReportEvent::EventType family, const dsmi_event& device)
{
    if (family == ReportEvent::SECURITY_EVENT) {
        return EventKind::Security;
    }
    const bool isLoss = device.eventId == ReportEvent::PM_LOST_EVENT_ID && resource == FAULT_REPORTING;
    return isLoss ? EventKind::PmLost : EventKind::Device;
}

}  // namespace

const char* KindName(EventKind kind)
{
    return KIND_NAMES[static_cast<size_t>(kind)];
}

std::optional<EventKind> ParseKind(std::string_view name)
{
    for (size_t i = 0; i < std::size(KIND_NAMES); ++i) {
        if (name == KIND_NAMES[i]) {
            return static_cast<EventKind>(i);
        }
    }
    return std::nullopt;
}

std::string_view Event::NameBytes() const
{
    const std::string_view area = device != nullptr
                                      ? std::string_view(device->eventName, sizeof(device->eventName))
                                      : std::string_view(fault->eventPara.buf, sizeof(fault->eventPara.buf));
    return area.substr(0, area.find_last_not_of('\0') + 1);
}

Event MakeEvent(std::string_view resource, SystemTime arrival, const EventInfo& fault, const UDSInfoForCpp& uds)
{
    return {EventKind::Fault, resource, arrival, &fault, &uds, nullptr};
}

Event MakeEvent(std::string_view resource, SystemTime arrival, ReportEvent::EventType family, const dsmi_event& device)
{
    return {KindOf(resource, family, device), resource, arrival, nullptr, nullptr, &device};
}

void StoredEvent::SetName(std::string_view name)
{
    const bool isFault = kind == EventKind::Fault;
    const size_t most = isFault ? sizeof(fault.eventPara.buf) : sizeof(device.eventName);
    if (name.size() > most) {
        throw std::invalid_argument("a name of " + std::to_string(name.size()) + " bytes; at most " +
                                    std::to_string(most) + " fit into a " + KindName(kind) + " event");
    }
    char* const area = isFault ? fault.eventPara.buf : device.eventName;
    std::memset(area, 0, most);
    std::memcpy(area, name.data(), name.size());
}

Event StoredEvent::View() const
{
    const bool isFault = kind == EventKind::Fault;
    return {kind,
            resource,
            arrival.value_or(SystemTime()),
            isFault ? &fault : nullptr,
            isFault ? &uds : nullptr,
            isFault ? nullptr : &device};
}

}  // namespace tools

#include "tools/EventJson.h"

#include <utility>

#include "report_event/ResourceNames.h"

namespace tools {

namespace {

constexpr size_t MOST_MEMBERS = 15;  // that an event has

// What every event starts with; `name` is the whole area of its name.
Json Begin(const char* kind, std::string_view resource, SystemTime arrival, uint32_t eventId, std::string_view name)
{
    const std::string_view text = name.substr(0, name.find('\0'));
    const std::string_view bytes = name.substr(0, name.find_last_not_of('\0') + 1);
    Json object = Json::object();
    auto& members = object.get_ref<Json::object_t&>();  // to append to, without looking for the keys
    members.reserve(MOST_MEMBERS);
    members.emplace_back("kind", kind);
    members.emplace_back("resource", resource);
    members.emplace_back("arrival", TimeText(arrival, true));
    members.emplace_back("eventId", eventId);
    members.emplace_back("eventName", text);
    if (text.size() != bytes.size() || !IsUtf8(text)) {
        object["eventNameHex"] = ToHexadecimal(bytes.data(), bytes.size());
    }
    return object;
}

const char* KindOf(std::string_view resource, ReportEvent::EventType family, const dsmi_event& device)
{
    if (family == ReportEvent::SECURITY_EVENT) {
        return "security";
    }
    const bool isLoss = device.eventId == ReportEvent::PM_LOST_EVENT_ID && resource == FAULT_REPORTING;
    return isLoss ? PM_LOST : "device";
}

}  // namespace

Json ToJson(std::string_view resource, SystemTime arrival, const EventInfo& fault, const UDSInfoForCpp& uds)
{
    const std::string_view name(fault.eventPara.buf, sizeof(fault.eventPara.buf));
    Json event = Begin("fault", resource, arrival, fault.eventId, name);
    auto& members = event.get_ref<Json::object_t&>();
    VisitFaultNumbers(fault, uds.udsId, [&members](auto key, auto number) { members.emplace_back(key, number); });
    Json& dids = event["dids"] = Json::array();
    for (const DidInfoForCpp& did : uds.didInfo) {
        dids.push_back({{"did", did.did}, {"data", ToHexadecimal(did.data.data(), did.data.size())}});
    }
    return event;
}

Json ToJson(std::string_view resource, SystemTime arrival, ReportEvent::EventType family, const dsmi_event& device)
{
    const std::string_view name(device.eventName, sizeof(device.eventName));
    Json event = Begin(KindOf(resource, family, device), resource, arrival, device.eventId, name);
    auto& members = event.get_ref<Json::object_t&>();
    VisitDeviceNumbers(device, [&members](auto key, auto number) { members.emplace_back(key, number); });
    std::string reserved;
    VisitReserved(device, [&reserved](const auto& area) { reserved += ToHexadecimal(&area, sizeof(area)); });
    event["reserved"] = std::move(reserved);
    return event;
}

bool IsPmLost(const Json& event)
{
    return event.value("kind", Json()) == PM_LOST;
}

std::string ToLine(const Json& object)
{
    return Printable(object.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace tools

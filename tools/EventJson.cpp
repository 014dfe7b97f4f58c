#include "tools/EventJson.h"

#include <utility>

#include "report_event/ResourceNames.h"
#include "tools/EventFields.h"

namespace tools {

namespace {

// Appends members: one that is appended is not looked for.
class Writer {
public:
    // `name` is the whole area of the event's name.
    Writer(const char* kind, std::string_view resource, SystemTime arrival, uint32_t eventId, std::string_view name)
    {
        members_.reserve(16);
        (*this)("kind", kind);
        (*this)("resource", resource);
        (*this)("arrival", TimeText(arrival, true));
        (*this)("eventId", eventId);
        const std::string_view text = name.substr(0, name.find('\0'));
        const std::string_view bytes = name.substr(0, name.find_last_not_of('\0') + 1);
        (*this)("eventName", text);
        if (text.size() != bytes.size() || !IsUtf8(text)) {
            (*this)("eventNameHex", ToHexadecimal(bytes.data(), bytes.size()));
        }
    }

    template <typename T>
    void operator()(const char* key, T&& value) const
    {
        members_.emplace_back(key, std::forward<T>(value));
    }
    Json Take()
    {
        return std::move(object_);
    }

private:
    Json object_ = Json::object();
    Json::object_t& members_ = object_.get_ref<Json::object_t&>();
};

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
    Writer write("fault", resource, arrival, fault.eventId, {fault.eventPara.buf, sizeof(fault.eventPara.buf)});
    VisitFaultNumbers(fault, uds.udsId, write);
    Json dids = Json::array();
    for (const DidInfoForCpp& did : uds.didInfo) {
        dids.push_back({{"did", did.did}, {"data", ToHexadecimal(did.data.data(), did.data.size())}});
    }
    write("dids", std::move(dids));
    return write.Take();
}

Json ToJson(std::string_view resource, SystemTime arrival, ReportEvent::EventType family, const dsmi_event& device)
{
    Writer write(KindOf(resource, family, device), resource, arrival, device.eventId,
                 {device.eventName, sizeof(device.eventName)});
    VisitDeviceNumbers(device, write);
    std::string reserved;
    VisitReserved(device, [&reserved](const uint8_t* area, size_t size) { reserved += ToHexadecimal(area, size); });
    write("reserved", std::move(reserved));
    return write.Take();
}

bool IsPmLost(const Json& event)
{
    const auto kind = event.find("kind");
    return kind != event.end() && *kind == PM_LOST;
}

std::string ToLine(const Json& object)
{
    return Printable(object.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace tools

#include "tools/Records.h"

#include <chrono>
#include <limits>
#include <optional>
#include <stdexcept>

#include "platform/host/fte/FaultRecordEncoder.h"
#include "report_event/EventRecord.h"
#include "tools/Hexadecimal.h"
#include "tools/Printable.h"
#include "tools/ToolSupport.h"

namespace tools {

namespace {

template <typename T>
constexpr uint64_t MaxOf()
{
    return static_cast<uint64_t>(std::numeric_limits<T>::max());
}

// A number of a record: its default, and the largest value that fits into each kind, 0 where the kind has no such
// field.
struct NumberField {
    const char* option;
    const char* description;
    const char* defaultText;
    uint64_t faultMax;
    uint64_t rawMax;
};

constexpr NumberField FIELDS[] = {
    {"--event-id", "Identifier of the event", "0x1001", MaxOf<uint16_t>(), MaxOf<uint32_t>()},
    {"--severity", "Severity (device, security)", "1", 0, MaxOf<uint8_t>()},
    {"--assertion", "Assertion; an event with 0 always reaches the event log", "1", MaxOf<uint8_t>(), MaxOf<uint8_t>()},
    {"--node-id", "Node", "0", MaxOf<uint32_t>(), MaxOf<uint8_t>()},
    {"--device-id", "Device", "0", MaxOf<uint8_t>(), MaxOf<uint16_t>()},
    {"--os-id", "Operating system", "0", MaxOf<uint32_t>(), MaxOf<uint8_t>()},
    {"--serial", "Serial number of the first event, one more for each further one\n(device, security)", "1", 0,
     MaxOf<int32_t>()},
    {"--notify-serial", "Serial number of the notification (device, security)", "0", 0, MaxOf<int32_t>()},
    {"--arised-time",
     "Time at which the event arose (device, security); else the time of\npublishing, in nanoseconds since 1970", "", 0,
     MaxOf<uint64_t>()},
    {"--uds-id", "Identifier of the diagnostic information (fault)", "0", MaxOf<uint16_t>(), 0},
};

uint64_t NanosecondsSinceEpoch()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

host_platform::fte::FaultEvent ToEncoded(const StoredEvent& event)
{
    host_platform::fte::FaultEvent encoded;
    encoded.eventId = event.fault.eventId;
    encoded.assertion = event.fault.assertion;
    encoded.nodeId = event.fault.nodeId;
    encoded.deviceId = event.fault.deviceId;
    encoded.osId = event.fault.osId;
    encoded.name = event.View().NameBytes();
    encoded.udsId = event.uds.udsId;
    for (const DidInfoForCpp& did : event.uds.didInfo) {
        encoded.dids.push_back({did.did, did.data});
    }
    return encoded;
}

DidInfoForCpp ParseDid(const std::string& text)
{
    const size_t equals = text.find('=');
    const std::optional<uint64_t> id = ParseNumber(text.substr(0, equals));
    if (equals == std::string::npos || !id || *id > MaxOf<uint16_t>()) {
        throw CLI::ValidationError("--did", "'" + text + "' is not ID=HEXBYTES with an ID from 0 to 65535");
    }
    try {
        return {static_cast<uint16_t>(*id), ParseHexadecimal(text.substr(equals + 1))};
    } catch (const std::invalid_argument& error) {
        throw CLI::ValidationError("--did", "'" + text + "': " + error.what() + " after the '='");
    }
}

}  // namespace

Record MakeRecord(const StoredEvent& event, bool forceLog)
{
    if (event.kind == EventKind::Fault) {
        return host_platform::fte::EncodeRecord(ToEncoded(event), forceLog);
    }
    const auto family = event.kind == EventKind::Security ? ReportEvent::SECURITY_EVENT : ReportEvent::FAULT_EVENT;
    const ReportEvent::RawRecord raw = ReportEvent::MakeRawRecord(family, forceLog, event.device);
    return Record(std::begin(raw.bytes), std::end(raw.bytes));
}

std::vector<CLI::Option*> RecordOptions::AddTo(CLI::App& app)
{
    static_assert(std::size(FIELDS) == FIELD_COUNT, "one row for each field");
    std::vector<CLI::Option*> options;
    options.push_back(app.add_option("--kind", kind_, "What to publish")
                          ->check(CLI::IsMember({"fault", "device", "security"}))
                          ->capture_default_str());
    options.push_back(app.add_option("--name", name_, "Name of the event")->type_name("TEXT")->capture_default_str());
    for (size_t i = 0; i < FIELD_COUNT; ++i) {
        const NumberField& field = FIELDS[i];
        given_[i] = AddNumber(app, field.option, values_[i], 0, UINT64_MAX, field.description);
        values_[i] = ParseNumber(field.defaultText).value_or(0);
        given_[i]->default_str(field.defaultText);
        options.push_back(given_[i]);
    }
    options.push_back(app.add_option_function<std::vector<std::string>>(
                             "--did",
                             [this](const std::vector<std::string>& texts) {
                                 for (const std::string& text : texts) {
                                     dids_.push_back(ParseDid(text));
                                 }
                             },
                             "A data identifier and its bytes in hexadecimal (fault); may be repeated")
                          ->type_name("ID=HEXBYTES")
                          ->allow_extra_args(false));
    options.push_back(
        app.add_flag("--force-log", forceLog_, "Write the event to the event log whatever its assertion"));
    return options;
}

void RecordOptions::Check() const
{
    for (size_t i = 0; i < FIELD_COUNT; ++i) {
        if (given_[i]->count() == 0) {
            continue;
        }
        const uint64_t most = IsFault() ? FIELDS[i].faultMax : FIELDS[i].rawMax;
        if (most == 0) {
            throw CLI::ValidationError(FIELDS[i].option, "a " + kind_ + " event has no such field");
        }
        if (values_[i] > most) {
            throw CLI::ValidationError(FIELDS[i].option, std::to_string(values_[i]) + " is above " +
                                                             std::to_string(most) + ", the largest for a " + kind_ +
                                                             " event");
        }
    }
    if (!IsFault() && !dids_.empty()) {
        throw CLI::ValidationError("--did", "a " + kind_ + " event has no such field");
    }
    try {
        Make(0);
    } catch (const std::logic_error& error) {
        throw CLI::ValidationError("record", error.what());
    }
}

Record RecordOptions::Make(uint64_t index) const
{
    StoredEvent event;
    event.kind = ParseKind(kind_).value_or(EventKind::Fault);
    event.SetName(name_);
    if (IsFault()) {
        FillFault(event);
    } else {
        FillDevice(event, index);
    }
    return MakeRecord(event, forceLog_);
}

std::string RecordOptions::Description() const
{
    char id[16];
    std::snprintf(id, sizeof(id), "0x%04X", static_cast<unsigned int>(values_[EVENT_ID]));
    return kind_ + " event " + id + " " + Quoted(name_);
}

void RecordOptions::FillFault(StoredEvent& event) const
{
    event.fault.eventId = static_cast<uint16_t>(values_[EVENT_ID]);
    event.fault.assertion = static_cast<uint8_t>(values_[ASSERTION]);
    event.fault.nodeId = static_cast<uint32_t>(values_[NODE_ID]);
    event.fault.deviceId = static_cast<uint8_t>(values_[DEVICE_ID]);
    event.fault.osId = static_cast<uint32_t>(values_[OS_ID]);
    event.uds.udsId = static_cast<uint16_t>(values_[UDS_ID]);
    event.uds.didInfo = dids_;
}

void RecordOptions::FillDevice(StoredEvent& event, uint64_t index) const
{
    dsmi_event& device = event.device;
    device.eventId = static_cast<uint32_t>(values_[EVENT_ID]);
    device.deviceId = static_cast<uint16_t>(values_[DEVICE_ID]);
    device.nodeId = static_cast<uint8_t>(values_[NODE_ID]);
    device.severity = static_cast<uint8_t>(values_[SEVERITY]);
    device.assertion = static_cast<uint8_t>(values_[ASSERTION]);
    device.eventSerialNum = static_cast<int32_t>((values_[SERIAL] + index) % (MaxOf<int32_t>() + 1));
    device.notifySerialNum = static_cast<int32_t>(values_[NOTIFY_SERIAL]);
    device.eventArisedTime = given_[ARISED_TIME]->count() != 0 ? values_[ARISED_TIME] : NanosecondsSinceEpoch();
    device.osId = static_cast<uint8_t>(values_[OS_ID]);
}

}  // namespace tools

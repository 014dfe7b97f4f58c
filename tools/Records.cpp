#include "tools/Records.h"

#include <cstring>
#include <iterator>
#include <limits>
#include <optional>
#include <stdexcept>
#include <utility>

#include "platform/host/fte/FaultRecordEncoder.h"
#include "report_event/EventRecord.h"
#include "tools/ToolSupport.h"

namespace tools {

namespace {

using host_platform::fte::FaultEvent;

// ---------------------------------------------------------------------------------------------------------------------
// Reading an object

std::invalid_argument Fault(const std::string& key, const std::string& cause)
{
    return std::invalid_argument(key + ": " + cause);
}

const Json& Find(const Json& object, const char* key)
{
    const auto found = object.find(key);
    if (found == object.end()) {
        throw Fault(key, "missing");
    }
    return *found;
}

std::string ReadText(const Json& object, const char* key)
{
    const Json& value = Find(object, key);
    if (!value.is_string()) {
        throw Fault(key, "not a text");
    }
    return value.get<std::string>();
}

std::vector<unsigned char> ReadBytes(const Json& object, const char* key)
{
    const std::string text = ReadText(object, key);
    try {
        return ParseHexadecimal(text);
    } catch (const std::invalid_argument& error) {
        throw Fault(key, error.what());
    }
}

// Reads the numbers that it is called for.
struct NumberReader {
    const Json& object;

    template <typename T>
    void operator()(const char* key, T& number) const
    {
        const Json& value = Find(object, key);
        number = value.is_number_integer() ? value.get<T>() : T();
        if (std::to_string(number) != value.dump()) {
            using Limits = std::numeric_limits<T>;
            throw Fault(key, value.dump() + " is not a whole number from " + std::to_string(Limits::min()) + " to " +
                                 std::to_string(Limits::max()));
        }
    }
};

std::string ReadName(const Json& object)
{
    if (!object.contains("eventNameHex")) {
        return ReadText(object, "eventName");
    }
    const std::vector<unsigned char> bytes = ReadBytes(object, "eventNameHex");
    return {bytes.begin(), bytes.end()};
}

FaultEvent ReadFault(const Json& object)
{
    const NumberReader read{object};
    FaultEvent fault;
    read("eventId", fault.eventId);
    fault.name = ReadName(object);
    VisitFaultNumbers(fault, fault.udsId, read);
    const Json& dids = Find(object, "dids");
    if (!dids.is_array()) {
        throw Fault("dids", "not an array");
    }
    for (const Json& element : dids) {
        host_platform::fte::FaultDid& did = fault.dids.emplace_back();
        NumberReader{element}("did", did.did);
        did.data = ReadBytes(element, "data");
    }
    return fault;
}

dsmi_event ReadDevice(const Json& object)
{
    const NumberReader read{object};
    dsmi_event device{};
    read("eventId", device.eventId);
    VisitDeviceNumbers(device, read);
    const std::string name = ReadName(object);
    if (name.size() > sizeof(device.eventName)) {
        throw Fault("eventName", std::to_string(name.size()) + " bytes; at most " +
                                     std::to_string(sizeof(device.eventName)) + " fit");
    }
    std::memcpy(device.eventName, name.data(), name.size());
    const std::vector<unsigned char> reserved = ReadBytes(object, "reserved");
    size_t used = 0;
    VisitReserved(device, [&](auto& area) {
        if (used + sizeof(area) <= reserved.size()) {
            std::memcpy(&area, &reserved[used], sizeof(area));
        }
        used += sizeof(area);
    });
    if (used != reserved.size()) {
        throw Fault("reserved", "not " + std::to_string(used) + " bytes");
    }
    return device;
}

// ---------------------------------------------------------------------------------------------------------------------
// Options

// Options and the keys that they set.
constexpr std::pair<const char*, const char*> NUMBERS[] = {
    {"--event-id", "eventId"},
    {"--severity", "severity"},
    {"--assertion", "assertion"},
    {"--node-id", "nodeId"},
    {"--device-id", "deviceId"},
    {"--os-id", "osId"},
    {"--serial", "eventSerialNum"},
    {"--notify-serial", "notifySerialNum"},
    {"--arised-time", "eventArisedTime"},
    {"--uds-id", "udsId"},
};

// What an event of any kind is like if nothing else is said, as far as its kind has that.
const Json DEFAULTS = {
    {"eventId", 0x1001}, {"eventName", "test event"}, {"severity", 1}, {"assertion", 1}, {"eventSerialNum", 1}};

Json ParseDid(const std::string& text)
{
    const size_t equals = text.find('=');
    const std::optional<uint64_t> id = ParseNumber(text.substr(0, equals));
    if (equals == std::string::npos || !id) {
        throw CLI::ValidationError("--did", "'" + text + "' is not ID=HEXBYTES");
    }
    return {{"did", *id}, {"data", text.substr(equals + 1)}};
}

}  // namespace

Record MakeRecord(const Json& event, bool forceLog)
{
    const std::string kind = ReadText(event, "kind");
    if (kind == "fault") {
        return host_platform::fte::EncodeRecord(ReadFault(event), forceLog);
    }
    if (kind != "device" && kind != "security") {
        throw Fault("kind", "'" + kind + "' cannot be published");
    }
    const auto family = kind == "security" ? ReportEvent::SECURITY_EVENT : ReportEvent::FAULT_EVENT;
    const ReportEvent::RawRecord raw = ReportEvent::MakeRawRecord(family, forceLog, ReadDevice(event));
    return Record(std::begin(raw.bytes), std::end(raw.bytes));
}

std::vector<CLI::Option*> RecordOptions::AddTo(CLI::App& app)
{
    std::vector<CLI::Option*> all;
    all.push_back(app.add_option("--kind", kind_)->check(CLI::IsMember({"fault", "device", "security"})));
    all.push_back(app.add_flag("--force-log", forceLog_));
    all.push_back(app.add_option_function<std::string>(
        "--name", [this](const std::string& name) { given_["eventName"] = name; }));
    for (const auto& number : NUMBERS) {
        const auto read = [this, &number](const std::string& text) {
            const std::optional<uint64_t> value = ParseNumber(text);
            if (!value) {
                throw CLI::ValidationError(number.first, "'" + text + "' is not a number");
            }
            given_[number.second] = *value;
        };
        all.push_back(app.add_option_function<std::string>(number.first, read));
    }
    const auto addDids = [this](const std::vector<std::string>& texts) {
        for (const std::string& text : texts) {
            given_["dids"].push_back(ParseDid(text));
        }
    };
    all.push_back(app.add_option_function<std::vector<std::string>>("--did", addDids)->allow_extra_args(false));
    return all;
}

void RecordOptions::Check()
{
    try {
        // An event without anything, and what is known about it.
        event_ = kind_ == "fault" ? ToJson("", {}, EventInfo{}, UDSInfoForCpp{})
                                  : ToJson("", {}, ReportEvent::FAULT_EVENT, dsmi_event{});
        event_["kind"] = kind_;
        for (const auto& field : event_.items()) {
            field.value() = DEFAULTS.value(field.key(), field.value());
        }
        for (const auto& [key, value] : given_.items()) {
            if (!event_.contains(key)) {
                throw Fault(key, "there is no such field");
            }
            event_[key] = value;
        }
        MakeRecord(event_, forceLog_);
        description_ = kind_ + " event " + Hex(event_["eventId"].get<uint32_t>()) + " " +
                       Quoted(event_["eventName"].get<std::string>());
    } catch (const std::logic_error& error) {
        throw CLI::ValidationError("a " + kind_ + " event", error.what());
    }
}

Record RecordOptions::Make(uint64_t index) const
{
    constexpr uint64_t SERIALS = 1ULL << 31;
    Json event = event_;
    if (kind_ != "fault") {
        event["eventSerialNum"] = (event["eventSerialNum"].get<uint64_t>() + index) % SERIALS;
    }
    if (kind_ != "fault" && !given_.contains("eventArisedTime")) {
        const std::chrono::nanoseconds now = std::chrono::system_clock::now().time_since_epoch();
        event["eventArisedTime"] = now.count();
    }
    return MakeRecord(event, forceLog_);
}

}  // namespace tools

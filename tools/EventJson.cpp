#include "tools/EventJson.h"

#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "tools/Hexadecimal.h"
#include "tools/Printable.h"
#include "tools/Times.h"

namespace tools {

namespace {

// The next three list what the format takes from an event, in its order, for writing and for reading: `visit` is called
// with the key and the field. `Device` and `Fault` are the event's types, const or not.

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

template <typename Fault, typename Uds, typename Visit>
void VisitFaultNumbers(Fault& event, Uds& uds, const Visit& visit)
{
    visit("assertion", event.assertion);
    visit("nodeId", event.nodeId);
    visit("deviceId", event.deviceId);
    visit("osId", event.osId);
    visit("udsId", uds.udsId);
}

// The bytes without a field, in the order of their offsets; here without a key.
template <typename Device, typename Visit>
void VisitReserved(Device& event, const Visit& visit)
{
    visit(event.reserved0, sizeof(event.reserved0));
    visit(&event.reserved14, sizeof(event.reserved14));
    visit(event.reserved16, sizeof(event.reserved16));
    visit(event.reserved28, sizeof(event.reserved28));
    visit(event.reserved329, sizeof(event.reserved329));
}

Json DidsToJson(const UDSInfoForCpp& uds)
{
    Json dids = Json::array();
    for (const DidInfoForCpp& did : uds.didInfo) {
        dids.push_back({{"did", did.did}, {"data", ToHexadecimal(did.data.data(), did.data.size())}});
    }
    return dids;
}

std::invalid_argument WrongKey(const char* key, const std::string& expected)
{
    return std::invalid_argument("'" + std::string(key) + "' is not " + expected);
}

const Json& Find(const Json& object, const char* key)
{
    const auto found = object.find(key);
    if (found == object.end()) {
        throw std::invalid_argument("no '" + std::string(key) + "'");
    }
    return *found;
}

std::string ReadText(const Json& object, const char* key)
{
    const Json& value = Find(object, key);
    if (!value.is_string()) {
        throw WrongKey(key, "a text");
    }
    return value.get<std::string>();
}

template <typename T>
void ReadNumber(const Json& object, const char* key, T& number)
{
    constexpr auto LEAST = std::numeric_limits<T>::min();
    constexpr auto MOST = std::numeric_limits<T>::max();
    const Json& value = Find(object, key);
    bool fits = false;
    if (value.is_number_unsigned()) {
        fits = value.get<uint64_t>() <= static_cast<uint64_t>(MOST);
    } else if (value.is_number_integer()) {  // so it is below 0
        fits = std::is_signed_v<T> && value.get<int64_t>() >= static_cast<int64_t>(LEAST);
    }
    if (!fits) {
        throw WrongKey(key, "a whole number from " + std::to_string(LEAST) + " to " + std::to_string(MOST));
    }
    number = value.get<T>();
}

std::vector<unsigned char> ReadBytes(const Json& object, const char* key)
{
    const std::string text = ReadText(object, key);
    try {
        return ParseHexadecimal(text);
    } catch (const std::invalid_argument& error) {
        throw std::invalid_argument("'" + std::string(key) + "': " + error.what());
    }
}

void ReadDids(const Json& object, UDSInfoForCpp& uds)
{
    const Json& dids = Find(object, "dids");
    if (!dids.is_array()) {
        throw WrongKey("dids", "an array");
    }
    for (const Json& element : dids) {
        DidInfoForCpp did;
        ReadNumber(element, "did", did.did);
        did.data = ReadBytes(element, "data");
        uds.didInfo.push_back(std::move(did));
    }
}

void ReadName(const Json& object, StoredEvent& event)
{
    std::string name = ReadText(object, "eventName");
    if (object.contains("eventNameHex")) {
        const std::vector<unsigned char> bytes = ReadBytes(object, "eventNameHex");
        name.assign(bytes.begin(), bytes.end());
    }
    event.SetName(name);
}

void ReadReserved(const Json& object, dsmi_event& device)
{
    const std::vector<unsigned char> bytes = ReadBytes(object, "reserved");
    size_t expected = 0;
    VisitReserved(device, [&](uint8_t*, size_t size) { expected += size; });
    if (bytes.size() != expected) {
        throw WrongKey("reserved", "hexadecimal text of " + std::to_string(expected) + " bytes");
    }
    const unsigned char* next = bytes.data();
    VisitReserved(device, [&](uint8_t* area, size_t size) {
        std::memcpy(area, next, size);
        next += size;
    });
}

// What tells where an event came from; a line without it may still be published.
void ReadOrigin(const Json& object, StoredEvent& event)
{
    if (object.contains("resource")) {
        event.resource = ReadText(object, "resource");
    }
    if (object.contains("arrival")) {
        event.arrival = ParseUtcTime(ReadText(object, "arrival"));
        if (!event.arrival) {
            throw WrongKey("arrival", "a time such as 2024-05-06T07:08:09.012345Z");
        }
    }
}

}  // namespace

Json ToJson(const Event& event)
{
    Json object = Json::object();
    auto& members = object.get_ref<Json::object_t&>();
    members.reserve(16);  // a member that is appended is not looked for
    const auto write = [&members](const char* key, auto value) { members.emplace_back(key, std::move(value)); };
    write("kind", KindName(event.kind));
    write("resource", event.resource);
    write("arrival", UtcTime(event.arrival));
    write("eventId", event.Id());
    write("eventName", event.Name());
    const std::string_view name = event.NameBytes();
    if (event.Name().size() != name.size() || !IsUtf8(name)) {
        write("eventNameHex", ToHexadecimal(name.data(), name.size()));
    }
    if (event.device == nullptr) {
        VisitFaultNumbers(*event.fault, *event.uds, write);
        write("dids", DidsToJson(*event.uds));
    } else {
        VisitDeviceNumbers(*event.device, write);
        write("reserved", ReservedBytes(*event.device));
    }
    return object;
}

std::string ReservedBytes(const dsmi_event& event)
{
    std::string text;
    VisitReserved(event, [&text](const uint8_t* area, size_t size) { text += ToHexadecimal(area, size); });
    return text;
}

std::string ToLine(const Json& object)
{
    return Printable(object.dump(-1, ' ', false, Json::error_handler_t::replace));
}

StoredEvent ParseEvent(const std::string& line)
{
    const Json object = Json::parse(line, nullptr, false);
    if (!object.is_object()) {
        throw std::invalid_argument("not a JSON object");
    }
    const std::string name = ReadText(object, "kind");
    const std::optional<EventKind> kind = ParseKind(name);
    if (!kind) {
        throw WrongKey("kind", "fault, device, security or pm-lost");
    }
    StoredEvent event;
    event.kind = *kind;
    ReadOrigin(object, event);
    ReadName(object, event);
    const auto read = [&object](const char* key, auto& number) { ReadNumber(object, key, number); };
    if (event.kind == EventKind::Fault) {
        read("eventId", event.fault.eventId);
        VisitFaultNumbers(event.fault, event.uds, read);
        ReadDids(object, event.uds);
    } else {
        read("eventId", event.device.eventId);
        VisitDeviceNumbers(event.device, read);
        ReadReserved(object, event.device);
    }
    return event;
}

}  // namespace tools

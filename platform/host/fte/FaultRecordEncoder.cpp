#include "platform/host/fte/FaultRecordEncoder.h"

#include <stdexcept>

#include "fte.h"
#include "platform/host/fte/FaultRecordFormat.h"

namespace host_platform::fte {
namespace {

using Bytes = std::vector<unsigned char>;

void AppendLittleEndian(Bytes& bytes, uint32_t value, size_t width)
{
    for (size_t i = 0; i < width; ++i) {
        bytes.push_back(static_cast<unsigned char>(value >> (8 * i)));
    }
}

// The size of the serialized event, which must fit in a record; then every count and length fits in its field.
size_t CheckedSize(const FaultEvent& event)
{
    if (event.name.size() > FTE_EVENT_NAME_SIZE) {
        throw std::length_error("event name of " + std::to_string(event.name.size()) + " bytes; at most " +
                                std::to_string(FTE_EVENT_NAME_SIZE) + " fit");
    }
    if (event.name.find('\0') != std::string::npos) {
        throw std::invalid_argument("event name with a NUL character");
    }
    size_t size = HEADER_SIZE + event.name.size();
    for (const FaultDid& did : event.dids) {
        size += DID_HEADER_SIZE + did.data.size();
    }
    if (size > PAYLOAD_SIZE_MAX) {
        throw std::length_error("fault record of " + std::to_string(ReportEvent::RECORD_PREFIX_SIZE + size) +
                                " bytes; at most " + std::to_string(ReportEvent::RECORD_SIZE_MAX) + " fit");
    }
    return size;
}

void AppendPayload(Bytes& bytes, const FaultEvent& event, size_t size)
{
    bytes.insert(bytes.end(), MAGIC, MAGIC + sizeof(MAGIC));
    bytes.push_back(VERSION);
    bytes.push_back(event.assertion);
    AppendLittleEndian(bytes, event.eventId, 2);
    AppendLittleEndian(bytes, event.nodeId, 4);
    AppendLittleEndian(bytes, event.osId, 4);
    bytes.push_back(event.deviceId);
    bytes.push_back(static_cast<unsigned char>(event.name.size()));
    AppendLittleEndian(bytes, event.udsId, 2);
    AppendLittleEndian(bytes, static_cast<uint32_t>(event.dids.size()), 2);
    AppendLittleEndian(bytes, static_cast<uint32_t>(size), 2);
    bytes.insert(bytes.end(), event.name.begin(), event.name.end());
    for (const FaultDid& did : event.dids) {
        AppendLittleEndian(bytes, did.did, 2);
        AppendLittleEndian(bytes, static_cast<uint32_t>(did.data.size()), 2);
        bytes.insert(bytes.end(), did.data.begin(), did.data.end());
    }
}

}  // namespace

Bytes EncodePayload(const FaultEvent& event)
{
    const size_t size = CheckedSize(event);
    Bytes bytes;
    bytes.reserve(size);
    AppendPayload(bytes, event, size);
    return bytes;
}

Bytes EncodeRecord(const FaultEvent& event, bool forceLog)
{
    const size_t size = CheckedSize(event);
    Bytes bytes;
    bytes.reserve(ReportEvent::RECORD_PREFIX_SIZE + size);
    bytes.push_back(ReportEvent::RECORD_HEADER_FTE_FAULT);
    bytes.push_back(forceLog ? 1 : 0);
    AppendPayload(bytes, event, size);
    return bytes;
}

}  // namespace host_platform::fte

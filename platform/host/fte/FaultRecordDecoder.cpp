// FTEDeSerialize: the strict decoder of the serialized form. The whole input is checked before anything is allocated,
// so what is allocated is bounded by the input's own length, and bad input leaves nothing behind.
#include <cstring>
#include <memory>
#include <new>

#include "fte.h"
#include "platform/host/fte/FaultRecordFormat.h"
#include "platform/host/fte/FteCodes.h"

namespace host_platform::fte {
namespace {

uint16_t Load16(const unsigned char* bytes)
{
    return static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
}

uint32_t Load32(const unsigned char* bytes)
{
    return static_cast<uint32_t>(Load16(bytes)) | static_cast<uint32_t>(Load16(bytes + 2)) << 16;
}

FteCode CheckHeader(const unsigned char* data, size_t length)
{
    if (length > PAYLOAD_SIZE_MAX) {
        return FTE_TOO_LONG;
    }
    if (length < HEADER_SIZE) {
        return FTE_TRUNCATED;
    }
    if (std::memcmp(data, MAGIC, sizeof(MAGIC)) != 0) {
        return FTE_BAD_MAGIC;
    }
    if (data[VERSION_OFFSET] != VERSION) {
        return FTE_BAD_VERSION;
    }
    const size_t statedLength = Load16(data + LENGTH_OFFSET);
    if (statedLength != length) {
        return length < statedLength ? FTE_TRUNCATED : FTE_TRAILING;
    }
    return FTE_OK;
}

FteCode CheckName(const unsigned char* data, size_t length)
{
    const size_t nameLength = data[NAME_LENGTH_OFFSET];
    if (nameLength > FTE_EVENT_NAME_SIZE) {
        return FTE_BAD_NAME;
    }
    if (nameLength > length - HEADER_SIZE) {
        return FTE_INCONSISTENT;
    }
    return std::memchr(data + HEADER_SIZE, '\0', nameLength) == nullptr ? FTE_OK : FTE_BAD_NAME;
}

// The `count` DID records must fill `length` bytes exactly.
FteCode CheckDids(const unsigned char* data, size_t length, unsigned int count)
{
    for (; count > 0; --count) {
        if (length < DID_HEADER_SIZE || length - DID_HEADER_SIZE < Load16(data + DID_LENGTH_OFFSET)) {
            return FTE_INCONSISTENT;
        }
        const size_t size = DID_HEADER_SIZE + Load16(data + DID_LENGTH_OFFSET);
        data += size;
        length -= size;
    }
    return length == 0 ? FTE_OK : FTE_INCONSISTENT;
}

FteCode Check(const unsigned char* data, size_t length)
{
    FteCode code = CheckHeader(data, length);
    if (code == FTE_OK) {
        code = CheckName(data, length);
    }
    if (code == FTE_OK) {
        const size_t didsOffset = HEADER_SIZE + data[NAME_LENGTH_OFFSET];
        code = CheckDids(data + didsOffset, length - didsOffset, Load16(data + DID_COUNT_OFFSET));
    }
    return code;
}

// The remaining functions read checked bytes.

std::unique_ptr<DidInfo[]> MakeDids(const unsigned char* data, unsigned int count)
{
    if (count == 0) {
        return nullptr;
    }
    std::unique_ptr<DidInfo[]> dids(new DidInfo[count]);
    for (unsigned int i = 0; i < count; ++i) {
        dids[i].did = Load16(data);
        dids[i].len = Load16(data + DID_LENGTH_OFFSET);
        data += DID_HEADER_SIZE;
        if (dids[i].len != 0) {
            dids[i].data = new unsigned char[dids[i].len];
            std::memcpy(dids[i].data, data, dids[i].len);
            data += dids[i].len;
        }
    }
    return dids;
}

void Fill(const unsigned char* data, FTEInfo& info)
{
    info.eventId = Load16(data + EVENT_ID_OFFSET);
    info.assertion = data[ASSERTION_OFFSET];
    info.nodeId = Load32(data + NODE_ID_OFFSET);
    info.deviceId = data[DEVICE_ID_OFFSET];
    info.osId = Load32(data + OS_ID_OFFSET);
    const size_t nameLength = data[NAME_LENGTH_OFFSET];
    std::memcpy(info.eventName, data + HEADER_SIZE, nameLength);
    std::memset(info.eventName + nameLength, 0, sizeof(info.eventName) - nameLength);
}

}  // namespace
}  // namespace host_platform::fte

using namespace host_platform::fte;

int FTEDeSerialize(const unsigned char* data, unsigned int length, FTEInfo* info, UDSInfo* uds)
{
    if (data == nullptr || info == nullptr || uds == nullptr) {
        return FTE_NULL_ARGUMENT;
    }
    const FteCode code = Check(data, length);
    if (code != FTE_OK) {
        return code;
    }
    try {
        const uint16_t didCount = Load16(data + DID_COUNT_OFFSET);
        uds->didInfo = MakeDids(data + HEADER_SIZE + data[NAME_LENGTH_OFFSET], didCount).release();
        uds->didNum = didCount;
    } catch (const std::bad_alloc&) {
        return FTE_NO_RESOURCE;
    }
    uds->udsId = Load16(data + UDS_ID_OFFSET);
    Fill(data, *info);
    return FTE_OK;
}

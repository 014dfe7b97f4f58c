// How the opaque words of the C interface name things of this process. No handle is all zero, and none ever becomes
// valid again: a handle that is old, invented or damaged is told from a good one.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_HANDLES_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_HANDLES_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "iam.h"
#include "platform/host/iam/service/Service.h"

namespace host_platform::iam {

// One word for a block or a reader: the service's number plus one (8 bits), its index there (16), and the number of
// this use of it (40).
constexpr unsigned SERVICE_SHIFT = 56;
constexpr unsigned INDEX_SHIFT = 40;
constexpr uint64_t USE_MASK = (uint64_t{1} << INDEX_SHIFT) - 1;

static_assert(SERVICE_LIMIT < 256 && POOL_BLOCKS_MAX <= 65536 && READER_LIMIT <= 65536, "each part has its bits");

constexpr uint64_t PackHandle(size_t serviceNumber, uint32_t index, uint64_t use)
{
    return uint64_t{serviceNumber + 1} << SERVICE_SHIFT | uint64_t{index} << INDEX_SHIFT | (use & USE_MASK);
}

inline Service* ServiceOf(uint64_t handle)
{
    return ServiceDirectory::Instance().At((handle >> SERVICE_SHIFT) - 1);  // 0 wraps and finds none
}

inline uint64_t ReaderHandle(size_t serviceNumber, const ReaderKey& key)
{
    return PackHandle(serviceNumber, key.index, key.generation);
}

inline ReaderKey ReaderOf(uint64_t handle)
{
    return {static_cast<uint32_t>(handle >> INDEX_SHIFT & 0xFFFF), handle & USE_MASK};
}

inline uint64_t BlockHandle(size_t serviceNumber, const BlockKey& key)
{
    return PackHandle(serviceNumber, key.block, key.sequence);
}

inline BlockKey BlockOf(uint64_t handle)
{
    return {static_cast<uint32_t>(handle >> INDEX_SHIFT & 0xFFFF), handle & USE_MASK};
}

// The start of a pool handle; the rest of it is zero.
struct PoolName {
    uint64_t mark = 0;
    uint64_t serviceNumber = 0;
    uint64_t generation = 0;
};
constexpr uint64_t POOL_MARK = 0x4C4F4F504D414900;

inline PoolName PoolOf(const IAMShmPoolHandle& handle)
{
    PoolName name;
    memcpy(&name, handle.opaque, sizeof name);
    return name;
}

// Null unless the handle was filled by a registration in this process.
inline Service* ServiceOf(const PoolName& pool)
{
    return pool.mark == POOL_MARK ? ServiceDirectory::Instance().At(pool.serviceNumber) : nullptr;
}

inline void FillPoolHandle(size_t serviceNumber, uint64_t generation, IAMShmPoolHandle& handle)
{
    const PoolName name{POOL_MARK, serviceNumber, generation};
    memset(handle.opaque, 0, sizeof handle.opaque);
    memcpy(handle.opaque, &name, sizeof name);
}

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_HANDLES_H

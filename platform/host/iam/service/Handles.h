// How the opaque words of the C interface name things of this process. No handle is all zero, and none ever becomes
// valid again: a handle that is old, invented or damaged is told from a good one.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_HANDLES_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_HANDLES_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "iam.h"

namespace host_platform::iam {

// One word for a reader or a block: its index (16 bits) and the number of this use of it (40 bits, never 0). The uses
// of both are numbered together, so that a reader's handle is never a block's.
constexpr unsigned INDEX_SHIFT = 40;
constexpr uint64_t INDEX_MASK = uint64_t{0xFFFF} << INDEX_SHIFT;
constexpr uint64_t USE_LIMIT = uint64_t{1} << INDEX_SHIFT;

constexpr uint64_t PackHandle(size_t index, uint64_t use)
{
    return uint64_t{index} << INDEX_SHIFT | use;
}

constexpr uint32_t IndexOf(uint64_t handle)
{
    return static_cast<uint32_t>((handle & INDEX_MASK) >> INDEX_SHIFT);
}

// All the rest of the word: of an invented handle, this is no use.
constexpr uint64_t UseOf(uint64_t handle)
{
    return handle & ~INDEX_MASK;
}

// A pool handle starts with a mark and the pool's generation; the rest of it is zero.
constexpr uint64_t POOL_MARK = 0x4C4F4F504D414900;

// 0, which no pool has, unless the handle was filled by a registration.
inline uint64_t PoolGenerationOf(const IAMShmPoolHandle& handle)
{
    uint64_t words[2];
    std::memcpy(words, handle.opaque, sizeof(words));
    return words[0] == POOL_MARK ? words[1] : 0;
}

inline void FillPoolHandle(uint64_t generation, IAMShmPoolHandle& handle)
{
    const uint64_t words[] = {POOL_MARK, generation};
    handle = {};
    std::memcpy(handle.opaque, words, sizeof(words));
}

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_HANDLES_H

// How the opaque words of the C interface name things of this process. No handle is all zero, and none ever becomes
// valid again: a handle that is old, invented or damaged is told from a good one.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_HANDLES_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_HANDLES_H

#include <cstdint>
#include <cstring>

#include "iam.h"

namespace host_platform::iam {

// One word for a reader or a block: what it names (8 bits), its index (16), and the number of this use of it (40).
enum class HandleKind : uint64_t { READER = 1, BLOCK = 2 };

constexpr unsigned KIND_SHIFT = 56;
constexpr unsigned INDEX_SHIFT = 40;
constexpr uint64_t USE_LIMIT = uint64_t{1} << INDEX_SHIFT;

constexpr uint64_t PackHandle(HandleKind kind, uint32_t index, uint64_t use)
{
    return static_cast<uint64_t>(kind) << KIND_SHIFT | uint64_t{index} << INDEX_SHIFT | (use & (USE_LIMIT - 1));
}

constexpr HandleKind KindOf(uint64_t handle)
{
    return static_cast<HandleKind>(handle >> KIND_SHIFT);
}

constexpr uint32_t IndexOf(uint64_t handle)
{
    return static_cast<uint32_t>(handle >> INDEX_SHIFT & 0xFFFF);
}

constexpr uint64_t UseOf(uint64_t handle)
{
    return handle & (USE_LIMIT - 1);
}

// A pool handle starts with a mark and the pool's generation; the rest of it is zero.
constexpr uint64_t POOL_MARK = 0x4C4F4F504D414900;

// 0, which no pool has, unless the handle was filled by a registration.
inline uint64_t PoolGenerationOf(const IAMShmPoolHandle& handle)
{
    uint64_t words[2];
    memcpy(words, handle.opaque, sizeof words);
    return words[0] == POOL_MARK ? words[1] : 0;
}

inline void FillPoolHandle(uint64_t generation, IAMShmPoolHandle& handle)
{
    const uint64_t words[] = {POOL_MARK, generation};
    handle = {};
    memcpy(handle.opaque, words, sizeof words);
}

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_HANDLES_H

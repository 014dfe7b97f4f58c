// A barrier between plain memory accesses and a flag, where the other side is another process.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_FENCE_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_FENCE_H

#include <atomic>

namespace host_platform::iam {

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpragmas"
// The thread sanitizer does not model fences. It need not here: the memory that these two order is shared with another
// process, through other addresses, and is out of its sight in any case.
#pragma GCC diagnostic ignored "-Wtsan"
#endif

// What was stored before is visible to others before anything stored after.
inline void OrderStores()
{
    std::atomic_thread_fence(std::memory_order_release);
}

// What was loaded before was loaded before anything loaded after.
inline void OrderLoads()
{
    std::atomic_thread_fence(std::memory_order_acquire);
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_FENCE_H

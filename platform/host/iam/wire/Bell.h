// Sleeping until a word changes that another process writes, and waking who sleeps: the kernel's futex on shared
// memory.
//
// It needs no descriptor, nothing to drain, and waking never blocks. The kernel knows a sleeper by the memory behind
// the address, so the two sides may map it wherever they like, the sleeping side for reading alone.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_BELL_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_BELL_H

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>

namespace host_platform::iam {

using BellWord = std::atomic<uint32_t>;
static_assert(sizeof(BellWord) == sizeof(uint32_t) && BellWord::is_always_lock_free, "the kernel reads it as a number");

// Sleeps unless the word differs from `known`: the kernel compares and goes to sleep in one step. May return at any
// time. 0, or an errno value when it cannot sleep.
inline int SleepWhile(const BellWord& word, uint32_t known)
{
    const bool failed = syscall(SYS_futex, &word, FUTEX_WAIT, known, nullptr, nullptr, 0) != 0;
    return failed && errno != EAGAIN && errno != EINTR ? errno : 0;
}

// Wakes whoever sleeps on the word. Only the address is used: where the memory is gone meanwhile this fails, and where
// other memory stands there by now, somebody is woken for nothing, which every user of a futex must expect.
inline void WakeSleepers(const BellWord* word)
{
    syscall(SYS_futex, word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_BELL_H

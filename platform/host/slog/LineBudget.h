// How many lines may be written at once, and how many in the long run.
#ifndef REPORT_EVENT_PLATFORM_HOST_SLOG_LINE_BUDGET_H
#define REPORT_EVENT_PLATFORM_HOST_SLOG_LINE_BUDGET_H

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <ctime>

namespace host_platform::slog {

// Any thread and any signal handler may take a line: no lock, no allocation.
class LineBudget {
public:
    // False when a line must be left out at this time of a monotonic clock.
    bool Take(const timespec& time)
    {
        const int64_t now = time.tv_sec * SECOND + time.tv_nsec;
        int64_t before = fullAgain_;
        for (;;) {
            const int64_t after = std::max(before, now) + SECOND;
            if (after - now > BURST * SECOND) {
                return false;
            }
            if (fullAgain_.compare_exchange_weak(before, after)) {
                return true;
            }
        }
    }

private:
    static constexpr int64_t SECOND = 1000000000;
    static constexpr int64_t BURST = 20;

    // Every line taken puts off by a second the moment from which a whole burst is there again.
    std::atomic<int64_t> fullAgain_{0};
    static_assert(std::atomic<int64_t>::is_always_lock_free, "a signal handler takes lines too");
};

}  // namespace host_platform::slog

#endif  // REPORT_EVENT_PLATFORM_HOST_SLOG_LINE_BUDGET_H

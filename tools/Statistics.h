// What a program has seen, for its closing lines.
#ifndef REPORT_EVENT_TOOLS_STATISTICS_H
#define REPORT_EVENT_TOOLS_STATISTICS_H

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/Event.h"

namespace tools {

// Used by one thread at a time.
class Statistics {
public:
    using Clock = std::chrono::steady_clock;

    explicit Statistics(Clock::time_point start) : start_(start)
    {
    }
    void Add(const Event& event, Clock::time_point now);
    // A line about all events, then one for each kind and resource.
    std::vector<std::string> Summary(Clock::time_point now) const;

private:
    const Clock::time_point start_;
    std::map<std::pair<EventKind, std::string>, uint64_t> counts_;
    uint64_t total_ = 0;
    std::optional<Clock::time_point> last_;
    Clock::duration longestGap_{0};  // between two events
};

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_STATISTICS_H

#include "tools/Statistics.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace tools {

namespace {

double Seconds(Statistics::Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

}  // namespace

void Statistics::Add(const Event& event, Clock::time_point now)
{
    ++total_;
    ++counts_[{event.kind, std::string(event.resource)}];
    longestGap_ = std::max(longestGap_, now - last_.value_or(now));
    last_ = now;
}

std::vector<std::string> Statistics::Summary(Clock::time_point now) const
{
    const double seconds = Seconds(now - start_);
    char line[160];
    std::snprintf(line, sizeof(line), "%" PRIu64 " events in %.1f s: %.1f per second, longest gap %.1f s", total_,
                  seconds, seconds > 0 ? static_cast<double>(total_) / seconds : 0, Seconds(longestGap_));
    std::vector<std::string> lines = {line};
    for (const auto& [source, count] : counts_) {
        std::snprintf(line, sizeof(line), "%10" PRIu64 " %-8s ", count, KindName(source.first));
        lines.push_back(line + source.second);
    }
    return lines;
}

}  // namespace tools

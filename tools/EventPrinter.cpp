#include "tools/EventPrinter.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "tools/EventJson.h"

namespace tools {

EventPrinter::EventPrinter(int fd, const Format& format, const EventFilter& filter, uint64_t limit)
    : format_(format), filter_(filter), output_(fd), remaining_(limit)
{
}

void EventPrinter::Print(const Event& event)
{
    if (!filter_.Passes(event)) {
        return;
    }
    const Clock::time_point now = Clock::now();
    lastEvent_ = now;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (remaining_ == 0) {
        return;
    }
    if (!output_.Write(Describe(event), stopped_.Descriptor())) {
        ended_.Raise();
        return;
    }
    statistics_.Add(event, now);
    if (remaining_ != UNLIMITED && event.kind != EventKind::PmLost && --remaining_ == 0) {
        ended_.Raise();
    }
}

std::vector<std::string> EventPrinter::Summary() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return statistics_.Summary(Clock::now());
}

int EventPrinter::WriteError() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return output_.Error();
}

// With the header in front where one is due, and all line feeds.
std::string EventPrinter::Describe(const Event& event)
{
    if (format_.json) {
        return ToLine(ToJson(event)) + '\n';
    }
    std::string text;
    if (format_.header) {
        const std::string day = format_.rows.delta ? "any" : DateText(event.arrival, format_.rows.utc);
        if (day != day_) {
            day_ = day;
            text = HeaderRow(format_.rows, event.arrival) + '\n';
        }
    }
    return text + ToRow(format_.rows, event, std::exchange(lastArrival_, event.arrival)) + '\n';
}

}  // namespace tools

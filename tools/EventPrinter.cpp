#include "tools/EventPrinter.h"

#include <algorithm>
#include <cstdio>
#include <limits>

namespace tools {

namespace {

std::pair<uint64_t, uint64_t> ParseRange(const std::string& text)
{
    const size_t dash = text.find('-');
    const std::optional<uint64_t> first = ParseNumber(text.substr(0, dash));
    const std::optional<uint64_t> last = dash == std::string::npos ? first : ParseNumber(text.substr(dash + 1));
    if (!first || !last || *first > *last || *last > std::numeric_limits<uint32_t>::max()) {
        throw CLI::ValidationError("--event-id", "'" + text + "' is neither a number nor a range such as 0x10-0x1F");
    }
    return {*first, *last};
}

}  // namespace

void EventFilter::AddTo(CLI::App& app)
{
    const auto addRanges = [this](const std::vector<std::string>& texts) {
        for (const std::string& text : texts) {
            ids_.push_back(ParseRange(text));
        }
    };
    app.add_option("--kind", kinds_)
        ->check(CLI::IsMember({"fault", "device", "security", PM_LOST}))
        ->allow_extra_args(false);
    app.add_option_function<std::vector<std::string>>("--event-id", addRanges)->allow_extra_args(false);
    AddNumber(app, "--severity", severity_, 0, std::numeric_limits<uint8_t>::max());
}

bool EventFilter::Passes(const Json& event) const
{
    const uint64_t id = event["eventId"].get<uint64_t>();
    const auto holdsId = [id](const auto& range) { return id >= range.first && id <= range.second; };
    return (kinds_.empty() || std::count(kinds_.begin(), kinds_.end(), event["kind"]) != 0) &&
           (ids_.empty() || std::any_of(ids_.begin(), ids_.end(), holdsId)) &&
           (severity_ == 0 || event.value("severity", uint64_t{0}) >= severity_);
}

void Statistics::Add(const Json& event, Clock::time_point now)
{
    ++total_;
    ++counts_[event["kind"].get<std::string>() + " from " + event["resource"].get<std::string>()];
    longestGap_ = std::max(longestGap_, now - last_.value_or(now));
    last_ = now;
}

std::vector<std::string> Statistics::Summary(Clock::time_point now) const
{
    const std::chrono::duration<double> time = now - start_;
    const std::chrono::duration<double> gap = longestGap_;
    char text[128];
    std::snprintf(text, sizeof(text), " events in %.1f s: %.1f per second, longest gap %.1f s", time.count(),
                  static_cast<double>(total_) / std::max(time.count(), 1e-6), gap.count());
    std::vector<std::string> lines = {std::to_string(total_) + text};
    for (const auto& [source, count] : counts_) {
        lines.push_back("  " + std::to_string(count) + " " + source);
    }
    return lines;
}

EventPrinter::EventPrinter(int fd, const PrinterOptions& options)
    : options_(options), output_(fd), remaining_(options.count)
{
}

void EventPrinter::Print(const Json& event, SystemTime arrival)
{
    if (!options_.filter.Passes(event)) {
        return;
    }
    const Clock::time_point now = Clock::now();
    lastEvent_ = now;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (remaining_ == 0) {
        return;
    }
    if (!output_.Write(Describe(event, arrival), ended_.Descriptor())) {
        ended_.Raise();
        return;
    }
    statistics_.Add(event, now);
    if (!IsPmLost(event) && --remaining_ == 0) {
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
std::string EventPrinter::Describe(const Json& event, SystemTime arrival)
{
    if (options_.json) {
        return ToLine(event) + '\n';
    }
    std::string text;
    if (options_.header) {
        text = HeaderRow(options_.rows, arrival) + '\n';
        if (std::exchange(header_, text) == text) {
            text.clear();
        }
    }
    return text + ToRow(options_.rows, event, arrival, std::exchange(lastArrival_, arrival)) + '\n';
}

}  // namespace tools

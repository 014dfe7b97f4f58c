// Prints the events that a filter lets pass, a line each, from the threads that deliver them, and sums them up.
#ifndef REPORT_EVENT_TOOLS_EVENT_PRINTER_H
#define REPORT_EVENT_TOOLS_EVENT_PRINTER_H

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/EventText.h"
#include "tools/Output.h"
#include "tools/ToolSupport.h"

namespace tools {

// Which events are shown, by their kind, identifier and severity. Set up once; then any thread.
class EventFilter {
public:
    // The values stay in this object, which outlives `app`.
    void AddTo(CLI::App& app);

    bool Passes(const Json& event) const;

private:
    std::vector<std::string> kinds_;                  // empty: all
    std::vector<std::pair<uint64_t, uint64_t>> ids_;  // from the first to the second; empty: all
    uint64_t severity_ = 0;
};

// What was seen, for closing lines. Used by one thread at a time.
class Statistics {
public:
    using Clock = std::chrono::steady_clock;

    explicit Statistics(Clock::time_point start) : start_(start)
    {
    }
    void Add(const Json& event, Clock::time_point now);
    // A line about all events, then one for each kind and resource.
    std::vector<std::string> Summary(Clock::time_point now) const;

private:
    const Clock::time_point start_;
    std::map<std::string, uint64_t> counts_;
    uint64_t total_ = 0;
    std::optional<Clock::time_point> last_;
    Clock::duration longestGap_{0};  // between two events
};

struct PrinterOptions {
    bool json = false;    // else rows
    bool header = false;  // above the rows of each day
    RowStyle rows;
    EventFilter filter;           // what does not pass is not there
    uint64_t count = UINT64_MAX;  // ends after so many events, the losses of process managers not counted
};

// Every line has been handed to the system when the call that prints it returns. The lock is held while a line is
// written, and a slow reader of the output makes that long; so Stop, which any thread may call without the lock, makes
// every print in progress give up: whoever unregisters calls it first and then waits for no reader.
class EventPrinter {
public:
    using Clock = Statistics::Clock;

    // `options` outlive it.
    EventPrinter(int fd, const PrinterOptions& options);

    void Print(const Json& event, SystemTime arrival);

    // Readable once nothing more will be printed: it was stopped, enough was printed, or the output cannot be written.
    int EndedDescriptor() const
    {
        return ended_.Descriptor();
    }
    void Stop()
    {
        ended_.Raise();
    }
    // When the last event came; before the first one, when this was made. Any thread.
    Clock::time_point LastEvent() const
    {
        return lastEvent_;
    }
    // What was printed, in closing lines.
    std::vector<std::string> Summary() const;
    // The errno of the write that failed, 0 when none has.
    int WriteError() const;

private:
    std::string Describe(const Json& event, SystemTime arrival);

    const PrinterOptions& options_;
    Flag ended_;
    std::atomic<Clock::time_point> lastEvent_{Clock::now()};  // not under the lock, which the output may hold up
    mutable std::mutex mutex_;                                // guards what follows
    Output output_;
    std::optional<SystemTime> lastArrival_;
    std::string header_;  // that was printed last
    uint64_t remaining_;
    Statistics statistics_{Clock::now()};
};

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_EVENT_PRINTER_H

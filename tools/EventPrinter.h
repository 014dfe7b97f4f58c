// Prints events, a line each, from the threads that deliver them.
#ifndef REPORT_EVENT_TOOLS_EVENT_PRINTER_H
#define REPORT_EVENT_TOOLS_EVENT_PRINTER_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tools/Event.h"
#include "tools/EventFilter.h"
#include "tools/EventText.h"
#include "tools/Output.h"
#include "tools/Statistics.h"
#include "tools/ToolSupport.h"

namespace tools {

// Every line has been handed to the system when the call that prints it returns. The lock is held while a line is
// written, and a slow reader of the output makes that long; so Stop, which any thread may call without the lock, makes
// every print in progress give up: whoever unregisters calls it first and then waits for no reader.
class EventPrinter {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr uint64_t UNLIMITED = UINT64_MAX;

    struct Format {
        bool json = false;    // else rows
        bool header = false;  // above the rows of each day
        RowStyle rows;
    };

    // Prints what passes `filter`, which outlives it, and ends after `limit` such events, the losses of process
    // managers not counted.
    EventPrinter(int fd, const Format& format, const EventFilter& filter, uint64_t limit);

    void Print(const Event& event);

    // Readable once nothing more will be printed: the limit is reached or the output cannot be written.
    int EndedDescriptor() const
    {
        return ended_.Descriptor();
    }
    void Stop()
    {
        stopped_.Raise();
    }
    // When the last event came that passed the filter; before the first one, when this was made. Any thread.
    Clock::time_point LastEvent() const
    {
        return lastEvent_;
    }
    // What was printed, in closing lines.
    std::vector<std::string> Summary() const;
    // The errno of the write that failed, 0 when none has.
    int WriteError() const;

private:
    std::string Describe(const Event& event);

    const Format format_;
    const EventFilter& filter_;
    Flag ended_;
    Flag stopped_;
    std::atomic<Clock::time_point>
        lastEvent_{};           // not under the lock, which may be held for as long as the output likes
    mutable std::mutex mutex_;  // guards what follows
    Output output_;
    std::optional<SystemTime> lastArrival_;
    std::string day_;  // of the last header
    uint64_t remaining_;
    Statistics statistics_{Clock::now()};
};

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_EVENT_PRINTER_H

// Serves one resource and publishes records on it, one after another, at the pace that was asked for.
#ifndef REPORT_EVENT_TOOLS_PUBLISHER_H
#define REPORT_EVENT_TOOLS_PUBLISHER_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "tools/Output.h"
#include "tools/Records.h"
#include "tools/ToolSupport.h"

namespace tools {

struct PublisherOptions {
    std::string resource;
    uint64_t interval = 0;  // milliseconds between two records
    double timing = 0;      // how many times as fast as they arrived records follow each other; 0: `interval` counts
    bool wait = false;
    uint64_t timeout = 0;  // seconds for which a reader is waited for; 0: for ever
    bool quiet = false;
};

// Used by one thread. What it refers to outlives it.
class Publisher {
public:
    // Serves the resource. Throws std::runtime_error with the cause when that fails.
    Publisher(const PublisherOptions& options, const StopSignals& signals, Output& output);

    // Waits for a reader, if that was asked for. False when a stop signal came first. Throws std::runtime_error when
    // none has come in time.
    bool WaitForReader() const;

    // Waits until the next record is due, makes it and publishes it, waiting while the pool is full. `arrival` says
    // when it arrived where it was recorded. False when a stop signal came first.
    bool Publish(const std::string& description, std::optional<SystemTime> arrival,
                 const std::function<Record()>& make);

    // The closing line; `passedOver` events were not meant. Returns false when a record was not published.
    bool Summarise(uint64_t passedOver);

private:
    using Clock = std::chrono::steady_clock;
    using Seconds = std::chrono::duration<double>;

    void Say(const std::string& line);
    bool WaitForTurn(std::optional<SystemTime> arrival);
    Seconds PauseByTiming(std::optional<SystemTime> arrival);
    std::optional<int> PublishWhenThereIsRoom(const Record& record);

    const PublisherOptions& options_;
    const StopSignals& signals_;
    Output& output_;
    bool isFirst_ = true;      // nothing was due yet
    Clock::time_point start_;  // when the first record was due
    Seconds due_{0};           // after the start: the record that is due
    std::optional<SystemTime> lastArrival_;
    uint64_t published_ = 0;
    uint64_t unread_ = 0;  // of those: had no reader
    uint64_t failed_ = 0;
    uint64_t retried_ = 0;
};

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_PUBLISHER_H

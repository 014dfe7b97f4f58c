// report-event-publish: serves a resource like a process manager and publishes records on it.
#include <syslog.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "Help.h"
#include "platform/host/iam/HostService.h"
#include "report_event/ReportEventClient.h"
#include "report_event/ResultCodes.h"
#include "tools/Output.h"
#include "tools/Platform.h"
#include "tools/Recording.h"
#include "tools/Records.h"
#include "tools/ToolSupport.h"

namespace tools {
namespace {

constexpr uint64_t INTERVAL_MAX = 24UL * 3600 * 1000;  // a day
constexpr int EXIT_INTERRUPTED = 130;

using std::chrono::milliseconds;

bool HasReader(const std::string& resource)
{
    return IAMHostReaderCount(resource.c_str()) > 0;
}

struct Options {
    std::string resource;
    uint64_t interval = 0;  // milliseconds between two records
    double timing = 0;      // how many times as fast as they arrived records follow each other; 0: `interval` counts
    bool wait = false;
    uint64_t timeout = 0;  // seconds for which a reader is waited for; 0: for ever
    bool quiet = false;
    RecordOptions record;
    std::string from;
    std::string only;
    uint64_t count = 1;
    bool serve = false;
    bool print = false;
    bool verbose = false;
};

// Publishes records on one resource, one after another, at the pace that was asked for. What it refers to outlives it.
class Publisher {
public:
    // Serves the resource. Throws std::runtime_error with the cause when that fails.
    Publisher(const Options& options, const StopSignals& signals, Output& output)
        : options_(options), signals_(signals), output_(output)
    {
        const int result = ReportEventClient::GetInstance().RegisterResService(options_.resource);
        if (result != ReportEvent::RESULT_OK) {
            throw std::runtime_error(options_.resource + ": cannot serve it: " + DescribeResult(result) +
                                     "; is the name well-formed and served by no other process?");
        }
        Say("serving " + options_.resource);
    }

    // Waits for a reader, if that was asked for. False when a stop signal came first. Throws std::runtime_error when
    // none has come in time.
    bool WaitForReader() const
    {
        constexpr milliseconds LOOK_INTERVAL{10};
        const Clock::time_point start = Clock::now();
        while (options_.wait && !HasReader(options_.resource)) {
            if (options_.timeout != 0 && Clock::now() - start >= std::chrono::seconds(options_.timeout)) {
                throw std::runtime_error("nobody has opened " + options_.resource + " within " +
                                         std::to_string(options_.timeout) + " s");
            }
            if (signals_.WaitFor(LOOK_INTERVAL)) {
                return false;
            }
        }
        return true;
    }

    // Waits until the next record is due; `arrival` says when it arrived where it was recorded. False when a stop
    // signal came first.
    bool WaitForTurn(std::optional<SystemTime> arrival)
    {
        const bool isFirst = std::exchange(isFirst_, false);
        if (isFirst) {
            start_ = Clock::now();
        }
        const Seconds pause =
            options_.timing == 0 ? milliseconds(isFirst ? 0 : options_.interval) : PauseByTiming(arrival);
        return !signals_.WaitFor(std::chrono::ceil<std::chrono::nanoseconds>(pause));
    }

    // Publishes a record, waiting while the pool is full. False when a stop signal came first.
    bool Publish(const std::string& description, const Record& record)
    {
        const bool hadReader = HasReader(options_.resource);
        const std::optional<int> result = PublishWhenThereIsRoom(record);
        if (!result) {
            return false;
        }
        if (*result != ReportEvent::RESULT_OK) {
            ++failed_;
            Complain(description + ": not published: " + DescribeResult(*result));
            return true;
        }
        ++published_;
        unread_ += hadReader ? 0 : 1;
        if (!options_.quiet) {
            Say(description + ", " + std::to_string(record.size()) + " bytes: result 0");
        }
        return true;
    }

    // The closing line; `passedOver` events were not meant. Returns false when a record was not published.
    bool Summarise(uint64_t passedOver)
    {
        const std::string remark =
            passedOver == 0 ? "" : "; " + std::to_string(passedOver) + " events of other resources passed over";
        Say(options_.resource + ": " + std::to_string(published_) + " records with result 0, " +
            std::to_string(failed_) + " failed; " + std::to_string(retried_) + " tries met a full pool" + remark);
        if (unread_ > 0 && !options_.wait) {
            Notify(std::to_string(unread_) + " of them found no reader of " + options_.resource +
                   " and were dropped (--wait waits for one)");
        }
        return failed_ == 0;
    }

private:
    using Clock = std::chrono::steady_clock;
    using Seconds = std::chrono::duration<double>;

    void Say(const std::string& line)
    {
        output_.Write(Printable(line) + '\n', signals_.Descriptor());
    }

    // Counted from the first record, so that what single records cost does not add up. A clock that was set back while
    // the recording was made costs no time, nor does a record that tells no arrival.
    Seconds PauseByTiming(std::optional<SystemTime> arrival)
    {
        constexpr Seconds LONGEST{1e9};
        if (arrival) {
            const Seconds gap = *arrival - lastArrival_.value_or(*arrival);
            due_ += std::max(gap, Seconds(0)) / options_.timing;
            lastArrival_ = arrival;
        }
        return std::clamp<Seconds>(due_ - (Clock::now() - start_), Seconds(0), LONGEST);
    }

    // Nothing when a stop signal came before there was room.
    std::optional<int> PublishWhenThereIsRoom(const Record& record)
    {
        // Every failed attempt leaves a line in the system log.
        constexpr milliseconds LONGEST_PAUSE{100};
        constexpr int TRIES_BEFORE_NOTICE = 10;
        milliseconds pause{1};
        for (int tries = 1;; ++tries) {
            const int result = ReportEventClient::GetInstance().ReportEvent(
                reinterpret_cast<const char*>(record.data()), static_cast<unsigned int>(record.size()));
            if (result != ReportEvent::RESULT_NO_BLOCK) {
                return result;
            }
            ++retried_;
            if (tries == TRIES_BEFORE_NOTICE) {
                Notify(DescribeResult(result) + "; waiting for the reader");
            }
            if (signals_.WaitFor(pause)) {
                return std::nullopt;
            }
            pause = std::min(2 * pause, LONGEST_PAUSE);
        }
    }

    const Options& options_;
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

void AddTiming(CLI::App& app, Options& options, CLI::Option* from, CLI::Option* interval)
{
    const auto read = [&options](const std::string& text) {
        double speed = 1;
        if (!text.empty() && (!CLI::detail::lexical_cast(text, speed) || !(speed >= 0.001 && speed <= 1e6))) {
            throw CLI::ValidationError("--timing", "'" + text + "' is not a number from 0.001 to 1000000");
        }
        options.timing = speed;
    };
    app.add_option_function<std::string>("--timing", read)->expected(0, 1)->needs(from)->excludes(interval);
}

void AddOptions(CLI::App& app, Options& options)
{
    CLI::Option* resource = app.add_option("--resource", options.resource);
    CLI::Option* wait = app.add_flag("--wait", options.wait);
    AddNumber(app, "--timeout", options.timeout, 1, TIMEOUT_MAX)->needs(wait);
    CLI::Option* count = AddNumber(app, "--count", options.count, 0, UINT64_MAX);
    CLI::Option* interval = AddNumber(app, "--interval", options.interval, 0, INTERVAL_MAX);
    CLI::Option* serve = app.add_flag("--serve", options.serve);
    app.add_flag("--quiet", options.quiet);
    app.add_flag("--verbose", options.verbose);
    CLI::Option* from = app.add_option("--from", options.from)->excludes(count);
    for (CLI::Option* option : options.record.AddTo(app)) {
        from->excludes(option);
    }
    app.add_option("--only", options.only)->needs(from);
    AddTiming(app, options, from, interval);
    CLI::Option* print = app.add_flag("--print", options.print);
    for (CLI::Option* option : {resource, wait, serve, from}) {
        print->excludes(option);
    }
}

// False when a stop signal came before the last record.
bool PublishFromOptions(Publisher& publisher, const Options& options)
{
    for (uint64_t i = 0; i < options.count; ++i) {
        const std::string number = std::to_string(i + 1) + "/" + std::to_string(options.count) + " ";
        // Made no sooner than it is due: it bears the time at which it is sent.
        if (!publisher.WaitForTurn(std::nullopt) ||
            !publisher.Publish(number + options.record.Description(), options.record.Make(i))) {
            return false;
        }
    }
    return true;
}

bool PublishFromRecording(Publisher& publisher, Recording& recording, const StopSignals& signals)
{
    while (const std::optional<RecordedRecord> recorded = recording.Next(signals)) {
        if (!publisher.WaitForTurn(recorded->arrival) ||
            !publisher.Publish(recording.Position() + "record", recorded->record)) {
            return false;
        }
    }
    return !signals.WaitFor(std::chrono::nanoseconds(0));
}

int Print(const Options& options)
{
    Output output(STDOUT_FILENO);
    for (uint64_t i = 0; i < options.count; ++i) {
        const Record record = options.record.Make(i);
        output.Write(ToHexadecimal(record.data(), record.size()) + '\n', -1);
    }
    return AfterOutput(output.Error(), EXIT_SUCCESS);
}

int Serve(const Options& options, const StopSignals& signals, Output& output)
{
    std::optional<Recording> recording;
    if (!options.from.empty()) {
        recording.emplace(options.from, options.only.empty() ? options.resource : options.only);
    }
    Publisher publisher(options, signals, output);
    const auto summarise = [&] { return publisher.Summarise(recording ? recording->PassedOver() : 0); };
    bool complete = publisher.WaitForReader();
    try {
        complete = complete && (recording ? PublishFromRecording(publisher, *recording, signals)
                                          : PublishFromOptions(publisher, options));
    } catch (...) {
        summarise();
        throw;
    }
    if (complete && options.serve) {
        signals.WaitFor(std::chrono::nanoseconds::max());
    }
    const bool allPublished = summarise();
    if (!complete && !options.serve) {
        return EXIT_INTERRUPTED;
    }
    return allPublished ? EXIT_SUCCESS : EXIT_RUNTIME_FAILURE;
}

int Run(Options& options)
{
    if (options.resource.empty() && !options.print) {
        throw CLI::RequiredError("--resource");
    }
    options.record.Check();
    if (options.print) {
        return Print(options);
    }
    // With --verbose, what the library writes to the system log stands on standard error, too.
    openlog(nullptr, LOG_PID | (options.verbose ? LOG_PERROR : 0), LOG_USER);
    if (!options.verbose) {
        platform::Quiet();
    }
    const StopSignals signals;
    Output output(STDOUT_FILENO);
    const int exitCode = Serve(options, signals, output);
    return AfterOutput(output.Error(), exitCode);
}

}  // namespace
}  // namespace tools

int main(int argc, char** argv)
{
    std::optional<tools::Options> options;  // made where exceptions are caught
    return tools::RunProgram(argc, argv,
                             {"report-event-publish", REPORT_EVENT_VERSION, tools::HELP,
                              [&options](CLI::App& app) { tools::AddOptions(app, options.emplace()); },
                              [&options] { return tools::Run(*options); }});
}

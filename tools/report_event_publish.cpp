// report-event-publish: serves a resource like a process manager and publishes records on it.
#include <syslog.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/host/iam/HostService.h"
#include "report_event/EventRecord.h"
#include "report_event/ReportEventClient.h"
#include "tools/Hexadecimal.h"
#include "tools/LineReader.h"
#include "tools/Records.h"
#include "tools/ToolSupport.h"

namespace tools {
namespace {

using std::chrono::milliseconds;

constexpr int POOL_EMPTY = 0xF10209;
constexpr uint64_t INTERVAL_MAX = 24UL * 3600 * 1000;  // a day
constexpr int EXIT_INTERRUPTED = 130;

struct Options {
    std::string resource;
    std::string from;
    RecordOptions record;
    uint64_t count = 1;
    uint64_t interval = 0;
    bool wait = false;
    bool serve = false;
    bool print = false;
    bool quiet = false;
};

// Options that make no sense together.
struct Exclusion {
    const CLI::Option* option;
    std::vector<CLI::Option*> others;
};

std::vector<Exclusion> AddOptions(CLI::App& app, Options& options)
{
    app.description(
        "Serves a resource like a process manager and publishes event records on it. Each record\n"
        "goes to the reader that opened the resource most recently. A record published while no\n"
        "reader has the resource open is dropped, and its result is 0 all the same: --wait waits\n"
        "for a reader first.");
    app.footer(
        "Numbers are decimal or, after 0x, hexadecimal.\n"
        "\n"
        "When the pool is full because the reader is slow, the record is tried again until there\n"
        "is room.\n"
        "\n"
        "Exit status: 0 when every record was published; 1 when the resource cannot be served or a\n"
        "record cannot be read or published; 2 for a wrong command line; 130 when a signal came\n"
        "before all records were published. With --serve, SIGINT and SIGTERM are the normal end.\n"
        "\n"
        "Example: report-event-publish --resource dp:/res/pm/fm --wait --did 0xF190=0a0b");
    app.set_version_flag("--version", REPORT_EVENT_VERSION, "Print the version and exit");
    CLI::Option* resource = app.add_option("--resource", options.resource,
                                           "Resource to serve: dp:/res/pm/fm for a process manager's faults,\n"
                                           "dp:/res/iam/sec_event for security events")
                                ->type_name("NAME");
    CLI::Option* count = AddNumber(app, "--count", options.count, 0, UINT64_MAX, "Publish N records")->default_str("1");
    AddNumber(app, "--interval", options.interval, 0, INTERVAL_MAX, "Milliseconds between two records")
        ->default_str("0");
    CLI::Option* wait = app.add_flag("--wait", options.wait, "Publish nothing before a reader has opened the resource");
    CLI::Option* serve =
        app.add_flag("--serve", options.serve, "Stay up after the last record, until SIGINT or SIGTERM");
    app.add_flag("--quiet", options.quiet, "Print no line for each record published");
    std::vector<CLI::Option*> notWithFrom = options.record.AddTo(app);
    notWithFrom.push_back(count);
    CLI::Option* from = app.add_option("--from", options.from,
                                       "Publish ready-made records instead, unchanged: one per line, in\n"
                                       "hexadecimal; blank lines and lines that begin with '#' are passed\n"
                                       "over; - is standard input")
                            ->type_name("FILE");
    CLI::Option* print =
        app.add_flag("--print", options.print, "Print the records as lines for --from; serve and publish nothing");
    return {{from, std::move(notWithFrom)}, {print, {resource, from, wait, serve}}};
}

void CheckOptions(const Options& options, const std::vector<Exclusion>& exclusions)
{
    for (const Exclusion& exclusion : exclusions) {
        for (const CLI::Option* other : exclusion.others) {
            if (exclusion.option->count() != 0 && other->count() != 0) {
                throw CLI::ExcludesError(exclusion.option->get_name(), other->get_name());
            }
        }
    }
    if (options.resource.empty() && !options.print) {
        throw CLI::RequiredError("--resource");
    }
    options.record.Check();
}

// Publishes records one after another and counts what became of them.
class Publisher {
public:
    Publisher(const Options& options, const StopSignals& signals, StandardOutput& output)
        : options_(options), signals_(signals), output_(output)
    {
    }

    // Serves the resource. False when that failed, which has been reported.
    bool Serve()
    {
        openlog(nullptr, LOG_PID, LOG_USER);
        const int result = ReportEventClient::GetInstance().RegisterResService(options_.resource);
        if (result != 0) {
            Complain(options_.resource + ": cannot serve it: " + DescribeResult(result) +
                     "; is the name well-formed and served by no other process?");
            return false;
        }
        output_.PrintLine("serving " + options_.resource);
        return true;
    }

    // False when a stop signal came first.
    bool WaitForReader() const
    {
        constexpr milliseconds LOOK_INTERVAL{10};
        while (IAMHostReaderCount(options_.resource.c_str()) <= 0) {
            if (signals_.WaitFor(LOOK_INTERVAL)) {
                return false;
            }
        }
        return true;
    }

    // Waits for the time between two records, then publishes. False when a stop signal came first.
    bool Publish(const Record& record, const std::string& description)
    {
        const bool first = published_ + failed_ == 0;
        if (signals_.WaitFor(milliseconds(first ? 0 : options_.interval))) {
            return false;
        }
        const std::optional<int> result = PublishWhenThereIsRoom(record);
        if (!result) {
            return false;
        }
        if (*result != 0) {
            ++failed_;
            Complain(description + ": not published: " + DescribeResult(*result));
            return true;
        }
        ++published_;
        if (!options_.quiet) {
            output_.PrintLine(description + ", " + std::to_string(record.size()) + " bytes: result 0");
        }
        return true;
    }

    // The closing line. Returns false when a record was not published.
    bool Summarise() const
    {
        output_.PrintLine(options_.resource + ": " + std::to_string(published_) +
                          " records with result 0 (handed to the reader, or dropped while there was none), " +
                          std::to_string(failed_) + " failed; " + std::to_string(retried_) + " tries met a full pool");
        if (published_ > 0 && IAMHostReaderCount(options_.resource.c_str()) <= 0) {
            Notify("no reader has " + options_.resource + " open now (--wait waits for one before publishing)");
        }
        return failed_ == 0;
    }

private:
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
            if (result != POOL_EMPTY) {
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
    StandardOutput& output_;
    uint64_t published_ = 0;
    uint64_t failed_ = 0;
    uint64_t retried_ = 0;
};

// False when a stop signal came before the last record.
bool PublishFromOptions(Publisher& publisher, const Options& options)
{
    for (uint64_t i = 0; i < options.count; ++i) {
        const std::string number = std::to_string(i + 1) + "/" + std::to_string(options.count) + " ";
        if (!publisher.Publish(options.record.Make(i), number + options.record.Description())) {
            return false;
        }
    }
    return true;
}

Record ParseLine(const std::string& line, const std::string& position)
{
    try {
        Record record = ParseHexadecimal(line);
        if (record.size() > ReportEvent::RECORD_SIZE_MAX) {
            throw std::invalid_argument("a record of " + std::to_string(record.size()) + " bytes; at most " +
                                        std::to_string(ReportEvent::RECORD_SIZE_MAX) + " can be published");
        }
        return record;
    } catch (const std::invalid_argument& error) {
        throw std::runtime_error(position + error.what());
    }
}

bool PublishFromLines(Publisher& publisher, LineReader& lines, const StopSignals& signals)
{
    while (const std::optional<std::string> line = lines.Next(signals)) {
        if (line->find_first_not_of(" \t\r") == std::string::npos || line->front() == '#') {
            continue;
        }
        const Record record = ParseLine(*line, lines.Position());
        if (!publisher.Publish(record, lines.Position() + "record")) {
            return false;
        }
    }
    return !signals.WaitFor(milliseconds(0));
}

int Print(const Options& options, StandardOutput& output)
{
    for (uint64_t i = 0; i < options.count; ++i) {
        const Record record = options.record.Make(i);
        output.PrintLine(ToHexadecimal(record.data(), record.size()));
    }
    return EXIT_SUCCESS;
}

int Serve(const Options& options, StandardOutput& output)
{
    const StopSignals signals;
    std::unique_ptr<LineReader> lines;
    if (!options.from.empty()) {
        lines = std::make_unique<LineReader>(options.from);
    }
    Publisher publisher(options, signals, output);
    if (!publisher.Serve()) {
        return EXIT_RUNTIME_FAILURE;
    }
    std::exception_ptr failure;
    bool complete = false;
    try {
        complete = (!options.wait || publisher.WaitForReader()) &&
                   (lines ? PublishFromLines(publisher, *lines, signals) : PublishFromOptions(publisher, options));
    } catch (const std::exception& error) {
        failure = std::current_exception();
    }
    if (complete && options.serve) {
        signals.Wait();
    }
    const bool allPublished = publisher.Summarise();
    if (failure) {
        std::rethrow_exception(failure);
    }
    if (!complete && !options.serve) {
        return EXIT_INTERRUPTED;
    }
    return allPublished ? EXIT_SUCCESS : EXIT_RUNTIME_FAILURE;
}

int Run(const Options& options)
{
    PrepareStandardStreams();
    StandardOutput output;
    const int exitCode = options.print ? Print(options, output) : Serve(options, output);
    return output.Failed() ? EXIT_RUNTIME_FAILURE : exitCode;
}

}  // namespace
}  // namespace tools

int main(int argc, char** argv)
{
    try {
        tools::Options options;
        CLI::App app("", "report-event-publish");
        const auto exclusions = tools::AddOptions(app, options);
        app.callback([&] { tools::CheckOptions(options, exclusions); });
        if (const auto exitCode = tools::ParseCommandLine(app, argc, argv)) {
            return *exitCode;
        }
        return tools::Run(options);
    } catch (const std::exception& error) {
        tools::Complain(error.what());
        return tools::EXIT_RUNTIME_FAILURE;
    }
}

// report-event-publish: serves a resource like a process manager and publishes records on it.
#include <syslog.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "Help.h"
#include "tools/Output.h"
#include "tools/Platform.h"
#include "tools/Publisher.h"
#include "tools/Recording.h"
#include "tools/Records.h"
#include "tools/ToolSupport.h"

namespace tools {
namespace {

constexpr uint64_t INTERVAL_MAX = 24UL * 3600 * 1000;  // a day
constexpr int EXIT_INTERRUPTED = 130;

struct Options {
    PublisherOptions publisher;
    RecordOptions record;
    std::string from;
    std::string only;
    uint64_t count = 1;
    bool serve = false;
    bool print = false;
    bool verbose = false;
};

void AddTiming(CLI::App& app, Options& options, CLI::Option* from, CLI::Option* interval)
{
    const auto read = [&options](const std::string& text) {
        double speed = 1;
        if (!text.empty() && (!CLI::detail::lexical_cast(text, speed) || !(speed >= 0.001 && speed <= 1e6))) {
            throw CLI::ValidationError("--timing", "'" + text + "' is not a number from 0.001 to 1000000");
        }
        options.publisher.timing = speed;
    };
    app.add_option_function<std::string>("--timing", read)->expected(0, 1)->needs(from)->excludes(interval);
}

void AddOptions(CLI::App& app, Options& options)
{
    CLI::Option* resource = app.add_option("--resource", options.publisher.resource);
    CLI::Option* wait = app.add_flag("--wait", options.publisher.wait);
    AddNumber(app, "--timeout", options.publisher.timeout, 1, TIMEOUT_MAX)->needs(wait);
    CLI::Option* count = AddNumber(app, "--count", options.count, 0, UINT64_MAX);
    CLI::Option* interval = AddNumber(app, "--interval", options.publisher.interval, 0, INTERVAL_MAX);
    CLI::Option* serve = app.add_flag("--serve", options.serve);
    app.add_flag("--quiet", options.publisher.quiet);
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
    app.callback([&options] {
        if (options.publisher.resource.empty() && !options.print) {
            throw CLI::RequiredError("--resource");
        }
        options.record.Check();
    });
}

// False when a stop signal came before the last record.
bool PublishFromOptions(Publisher& publisher, const Options& options)
{
    for (uint64_t i = 0; i < options.count; ++i) {
        const std::string number = std::to_string(i + 1) + "/" + std::to_string(options.count) + " ";
        // Made no sooner than it is due: it bears the time at which it is sent.
        const auto make = [&options, i] { return options.record.Make(i); };
        if (!publisher.Publish(number + options.record.Description(), std::nullopt, make)) {
            return false;
        }
    }
    return true;
}

bool PublishFromRecording(Publisher& publisher, Recording& recording, const StopSignals& signals)
{
    while (const std::optional<RecordedRecord> recorded = recording.Next(signals)) {
        const auto make = [&recorded] { return recorded->record; };
        if (!publisher.Publish(recording.Position() + "record", recorded->arrival, make)) {
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
        recording.emplace(options.from, options.only.empty() ? options.publisher.resource : options.only);
    }
    Publisher publisher(options.publisher, signals, output);
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

int Run(const Options& options)
{
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

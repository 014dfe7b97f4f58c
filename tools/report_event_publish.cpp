// report-event-publish: serves a resource like a process manager and publishes records on it.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/Hexadecimal.h"
#include "tools/Publisher.h"
#include "tools/Recording.h"
#include "tools/Records.h"
#include "tools/ToolSupport.h"

namespace tools {
namespace {

constexpr uint64_t INTERVAL_MAX = 24UL * 3600 * 1000;  // a day
constexpr uint64_t TIMEOUT_MAX = 1000000000;           // some thirty years
constexpr int EXIT_INTERRUPTED = 130;

struct Options {
    PublisherOptions publisher;
    RecordOptions record;
    std::string from;
    std::string only;
    uint64_t count = 1;
    bool serve = false;
    bool print = false;
};

constexpr const char* DESCRIPTION =
    "Serves a resource like a process manager and publishes event records on it. Each record\n"
    "goes to the reader that opened the resource most recently. A record published while no\n"
    "reader has the resource open is dropped, and its result is 0 all the same: --wait waits\n"
    "for a reader first.";

constexpr const char* FOOTER =
    "Numbers are decimal or, after 0x, hexadecimal.\n"
    "\n"
    "When the pool is full because the reader is slow, the record is tried again until there\n"
    "is room.\n"
    "\n"
    "Exit status: 0 when every record was published; 1 when the resource cannot be served, a\n"
    "record cannot be read or published, or --timeout is over; 2 for a wrong command line; 130\n"
    "when a signal came before all records were published. With --serve, SIGINT and SIGTERM are\n"
    "the normal end.\n"
    "\n"
    "Example: report-event-publish --resource dp:/res/pm/fm --wait --did 0xF190=0a0b";

void AddTiming(CLI::App& app, Options& options, CLI::Option* from, CLI::Option* interval)
{
    const auto read = [&options](const std::string& text) {
        double speed = 1;
        if (!text.empty() && (!CLI::detail::lexical_cast(text, speed) || !(speed >= 0.001 && speed <= 1e6))) {
            throw CLI::ValidationError("--timing", "'" + text + "' is not a number from 0.001 to 1000000");
        }
        options.publisher.timing = speed;
    };
    app.add_option_function<std::string>("--timing", read,
                                         "Keep the pauses between the recorded events as they were, or\n"
                                         "SPEED times as fast")
        ->type_name("[SPEED]")
        ->expected(0, 1)
        ->needs(from)
        ->excludes(interval);
}

void AddRecordingOptions(CLI::App& app, Options& options, const std::vector<CLI::Option*>& recordOptions,
                         CLI::Option* interval)
{
    CLI::Option* from = app.add_option("--from", options.from,
                                       "Publish what stands in FILE instead, a record per line: in\n"
                                       "hexadecimal, unchanged, or as report-event-monitor --json prints\n"
                                       "it. Blank lines, comments behind '#', pm-lost and events of\n"
                                       "other resources are passed over; - is standard input")
                            ->type_name("FILE");
    for (CLI::Option* option : recordOptions) {
        from->excludes(option);
    }
    app.add_option("--only", options.only, "Take the events recorded of this resource (else of --resource)")
        ->type_name("NAME")
        ->needs(from);
    AddTiming(app, options, from, interval);
    app.add_flag("--print", options.print, "Print the records as lines for --from; serve and publish nothing")
        ->excludes(from);
}

void AddOptions(CLI::App& app, Options& options)
{
    app.description(DESCRIPTION);
    app.footer(FOOTER);
    app.set_version_flag("--version", REPORT_EVENT_VERSION, "Print the version and exit");
    app.add_option("--resource", options.publisher.resource,
                   "Resource to serve: dp:/res/pm/fm for a process manager's faults,\n"
                   "dp:/res/iam/sec_event for security events")
        ->type_name("NAME");
    CLI::Option* count = AddNumber(app, "--count", options.count, 0, UINT64_MAX, "Publish N records")->default_str("1");
    CLI::Option* interval =
        AddNumber(app, "--interval", options.publisher.interval, 0, INTERVAL_MAX, "Milliseconds between two records")
            ->default_str("0");
    CLI::Option* wait =
        app.add_flag("--wait", options.publisher.wait, "Publish nothing before a reader has opened the resource");
    AddNumber(app, "--timeout", options.publisher.timeout, 1, TIMEOUT_MAX, "Wait for at most N seconds")->needs(wait);
    app.add_flag("--serve", options.serve, "Stay up after the last record, until SIGINT or SIGTERM");
    app.add_flag("--quiet", options.publisher.quiet, "Print no line for each record published");
    std::vector<CLI::Option*> recordOptions = options.record.AddTo(app);
    recordOptions.push_back(count);
    AddRecordingOptions(app, options, recordOptions, interval);
}

void CheckOptions(const CLI::App& app, const Options& options)
{
    for (const char* name : {"--resource", "--wait", "--serve"}) {
        if (options.print && app.count(name) != 0) {
            throw CLI::ExcludesError("--print", name);
        }
    }
    if (options.publisher.resource.empty() && !options.print) {
        throw CLI::RequiredError("--resource");
    }
    options.record.Check();
}

// False when a stop signal came before the last record.
bool PublishFromOptions(Publisher& publisher, const Options& options)
{
    for (uint64_t i = 0; i < options.count; ++i) {
        if (!publisher.WaitForTurn(std::nullopt)) {
            return false;
        }
        // Made no sooner: it bears the time at which it is sent.
        const Record record = options.record.Make(i);
        const std::string number = std::to_string(i + 1) + "/" + std::to_string(options.count) + " ";
        if (!publisher.Publish(record, number + options.record.Description())) {
            return false;
        }
    }
    return true;
}

bool PublishFromRecording(Publisher& publisher, Recording& recording, const StopSignals& signals)
{
    while (const std::optional<RecordedRecord> recorded = recording.Next(signals)) {
        if (!publisher.WaitForTurn(recorded->arrival) ||
            !publisher.Publish(recorded->record, recording.Position() + "record")) {
            return false;
        }
    }
    return !signals.WaitFor(std::chrono::nanoseconds(0));
}

int Print(const Options& options)
{
    StandardOutput output;
    for (uint64_t i = 0; i < options.count; ++i) {
        const Record record = options.record.Make(i);
        output.PrintLine(ToHexadecimal(record.data(), record.size()));
    }
    return AfterOutput(output.Error(), EXIT_SUCCESS);
}

std::string Remark(const Recording* recording)
{
    if (recording == nullptr || recording->PassedOver() == 0) {
        return "";
    }
    return "; " + std::to_string(recording->PassedOver()) + " events of other resources passed over";
}

int Serve(const Options& options, const StopSignals& signals, StandardOutput& output)
{
    std::unique_ptr<Recording> recording;
    if (!options.from.empty()) {
        recording =
            std::make_unique<Recording>(options.from, options.only.empty() ? options.publisher.resource : options.only);
    }
    Publisher publisher(options.publisher, signals, output);
    if (!publisher.Serve()) {
        return EXIT_RUNTIME_FAILURE;
    }
    std::exception_ptr failure;
    bool complete = false;
    try {
        const Publisher::Wait wait = publisher.WaitForReader();
        if (wait == Publisher::Wait::Timeout) {
            return EXIT_RUNTIME_FAILURE;
        }
        complete = wait == Publisher::Wait::Over && (recording ? PublishFromRecording(publisher, *recording, signals)
                                                               : PublishFromOptions(publisher, options));
    } catch (const std::exception& error) {
        failure = std::current_exception();
    }
    if (complete && options.serve) {
        signals.Wait();
    }
    const bool allPublished = publisher.Summarise(Remark(recording.get()));
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
    if (options.print) {
        return Print(options);
    }
    const StopSignals signals;
    StandardOutput output(signals.Descriptor());
    const int exitCode = Serve(options, signals, output);
    return AfterOutput(output.Error(), exitCode);
}

}  // namespace
}  // namespace tools

int main(int argc, char** argv)
{
    try {
        tools::PrepareStandardStreams();
        tools::Options options;
        CLI::App app("", "report-event-publish");
        tools::AddOptions(app, options);
        app.callback([&] { tools::CheckOptions(app, options); });
        if (const auto exitCode = tools::ParseCommandLine(app, argc, argv)) {
            return *exitCode;
        }
        return tools::Run(options);
    } catch (const std::exception& error) {
        tools::Complain(error.what());
        return tools::EXIT_RUNTIME_FAILURE;
    }
}

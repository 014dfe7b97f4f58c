// report-event-monitor: prints the events of this machine's publishers as they arrive.
#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "tools/EventPrinter.h"
#include "tools/Subscription.h"
#include "tools/ToolSupport.h"

namespace tools {
namespace {

constexpr uint64_t TIMEOUT_MAX = 1000000000;  // some thirty years

struct Options {
    SubscriptionOptions subscription;
    EventFilter filter;
    bool json = false;
    bool utc = false;
    bool delta = false;
    bool stats = false;
    uint64_t count = EventPrinter::UNLIMITED;
    uint64_t timeout = 0;  // 0: none
};

void AddOptions(CLI::App& app, Options& options)
{
    app.description(
        "Prints fault and security events, one line each, as they arrive. On a terminal, columns\n"
        "have a header and colours (unless NO_COLOR is set); times are those of arrival, local.\n"
        "\n"
        "It becomes the current reader of each resource it subscribes to: the newest reader takes\n"
        "the whole stream, and whoever read the resource before receives nothing more, also after\n"
        "the monitor has left.");
    app.footer(
        "A lost process manager is printed as pm-lost; its resource stays lost unless --follow is\n"
        "given. Any other resource is reopened for 5 seconds in any case.\n"
        "\n"
        "Exit status: 0 after SIGINT, SIGTERM, --count events or a closed pipe; 1 when a resource\n"
        "cannot be subscribed or the output cannot be written; 2 for a wrong command line.\n"
        "\n"
        "The library logs to standard error; SLOG_LEVELS and SLOG_EVENT_FILE say what and where:\n"
        "SLOG_LEVELS= silences it, but for event-log lines.");
    app.set_version_flag("--version", REPORT_EVENT_VERSION, "Print the version and exit");
    options.subscription.AddTo(app);
    app.add_flag("--json", options.json,
                 "Print one JSON object per line, in a form that stays (docs/json.md)\n"
                 "and that report-event-publish --from publishes again");
    app.add_flag("--utc", options.utc, "Show times in UTC, not in local time");
    app.add_flag("--delta", options.delta,
                 "Show, in the place of the time of arrival, the seconds since the row before");
    app.add_flag("--stats", options.stats,
                 "At the end, sum up on standard error what was seen. On a terminal, Ctrl-C\n"
                 "does that, too");
    options.filter.AddTo(app);
    AddNumber(app, "--count", options.count, 1, EventPrinter::UNLIMITED - 1, "End after N events; pm-lost is none");
    AddNumber(app, "--timeout", options.timeout, 1, TIMEOUT_MAX, "End when there was no event for N seconds");
}

EventPrinter::Format ChooseFormat(const Options& options)
{
    const char* noColour = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe): before any thread is started
    const bool isTerminal = isatty(STDOUT_FILENO) == 1;
    EventPrinter::Format format;
    format.json = options.json;
    format.header = isTerminal;
    format.rows.colour = isTerminal && (noColour == nullptr || *noColour == '\0');
    format.rows.shortTimes = isTerminal;
    format.rows.utc = options.utc;
    format.rows.delta = options.delta;
    for (const std::string& file : options.subscription.AllFiles()) {
        format.rows.resourceWidth = std::max(format.rows.resourceWidth, file.size());
    }
    return format;
}

enum class Wake { Timeout, StopSignal, PrinterEnded, OutputClosed };

// Waits until it is time to look at the subscriptions, or until there is a reason to end.
Wake WaitForWake(const StopSignals& signals, const EventPrinter& printer)
{
    // Standard output with no events asked for: a pipe whose reader has left is told all the same.
    pollfd waited[] = {
        {signals.Descriptor(), POLLIN, 0}, {printer.EndedDescriptor(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    int ready = 0;
    do {
        ready = poll(waited, 3, static_cast<int>(Subscription::LOOK_INTERVAL.count()));
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) {
        return Wake::Timeout;
    }
    if (waited[0].revents != 0) {
        return Wake::StopSignal;
    }
    return waited[1].revents != 0 ? Wake::PrinterEnded : Wake::OutputClosed;
}

// Prints until something ends it. Returns the exit code.
int Watch(Subscriptions& subscriptions, const Options& options, const StopSignals& signals, const EventPrinter& printer)
{
    const std::chrono::seconds timeout(options.timeout);
    while (WaitForWake(signals, printer) == Wake::Timeout) {
        subscriptions.Look();
        if (subscriptions.AreOver()) {
            Complain("nothing can arrive any more");
            return EXIT_RUNTIME_FAILURE;
        }
        if (options.timeout != 0 && EventPrinter::Clock::now() - printer.LastEvent() >= timeout) {
            Complain("no event for " + std::to_string(options.timeout) + " s");
            return EXIT_RUNTIME_FAILURE;
        }
    }
    return EXIT_SUCCESS;
}

int Monitor(const Options& options)
{
    const StopSignals signals;
    EventPrinter printer(STDOUT_FILENO, ChooseFormat(options), options.filter, options.count);
    Subscriptions subscriptions(options.subscription, [&printer](const Event& event) { printer.Print(event); });
    int exitCode = EXIT_RUNTIME_FAILURE;
    if (subscriptions.Start()) {
        exitCode = Watch(subscriptions, options, signals, printer);
    }
    printer.Stop();
    subscriptions.Stop();
    if (options.stats || (signals.AreInterrupt() && isatty(STDOUT_FILENO) == 1)) {
        for (const std::string& line : printer.Summary()) {
            Notify(line);
        }
    }
    return AfterOutput(printer.WriteError(), exitCode);
}

}  // namespace
}  // namespace tools

int main(int argc, char** argv)
{
    try {
        tools::PrepareStandardStreams();
        tools::Options options;
        CLI::App app("", "report-event-monitor");
        tools::AddOptions(app, options);
        app.callback([&options] { options.subscription.Complete(); });
        if (const auto exitCode = tools::ParseCommandLine(app, argc, argv)) {
            return *exitCode;
        }
        return tools::Monitor(options);
    } catch (const std::exception& error) {
        tools::Complain(error.what());
        return tools::EXIT_RUNTIME_FAILURE;
    }
}

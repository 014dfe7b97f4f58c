// report-event-monitor: prints the events of this machine's publishers as they arrive, or who serves and reads what.
#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#include "Help.h"
#include "tools/EventPrinter.h"
#include "tools/Platform.h"
#include "tools/Subscription.h"
#include "tools/ToolSupport.h"

namespace tools {
namespace {

struct Options {
    SubscriptionOptions subscription;
    PrinterOptions printer;
    bool stats = false;
    bool list = false;
    bool verbose = false;
    uint64_t timeout = 0;  // seconds; 0: none
};

void AddOptions(CLI::App& app, Options& options)
{
    options.subscription.AddTo(app);
    options.printer.filter.AddTo(app);
    AddNumber(app, "--count", options.printer.count, 1, UINT64_MAX);
    AddNumber(app, "--timeout", options.timeout, 1, TIMEOUT_MAX);
    app.add_flag("--json", options.printer.json);
    app.add_flag("--utc", options.printer.rows.utc);
    app.add_flag("--delta", options.printer.rows.delta);
    app.add_flag("--stats", options.stats);
    app.add_flag("--verbose", options.verbose);
    if (platform::IS_HOST) {
        app.add_flag("--list", options.list);
    }
}

void AdaptToTerminal(Options& options)
{
    const char* noColour = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe): before any thread is started
    const bool isTerminal = isatty(STDOUT_FILENO) == 1;
    options.printer.header = isTerminal;
    RowStyle& rows = options.printer.rows;
    rows.shortTimes = isTerminal;
    rows.colour = isTerminal && (noColour == nullptr || *noColour == '\0');
    for (const std::string& file : options.subscription.AllFiles()) {
        rows.resourceWidth = std::max(rows.resourceWidth, file.size());
    }
}

// Waits until it is time to look at the subscriptions. False when there is a reason to end before.
bool WaitForNextLook(const StopSignals& signals, const EventPrinter& printer)
{
    // Standard output with no events asked for: a pipe whose reader has left is told all the same.
    pollfd waited[] = {
        {signals.Descriptor(), POLLIN, 0}, {printer.EndedDescriptor(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    return poll(waited, 3, static_cast<int>(Subscriptions::LOOK_INTERVAL.count())) <= 0;
}

// Prints until something ends it. Returns the exit code.
int Watch(Subscriptions& subscriptions, const Options& options, const StopSignals& signals, const EventPrinter& printer)
{
    const std::chrono::seconds timeout(options.timeout);
    while (WaitForNextLook(signals, printer)) {
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

int Monitor(Options& options)
{
    AdaptToTerminal(options);
    const StopSignals signals;
    EventPrinter printer(STDOUT_FILENO, options.printer);
    Subscriptions subscriptions(options.subscription,
                                [&printer](const Json& event, SystemTime arrival) { printer.Print(event, arrival); });
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

// "4711(monitor) 4712(monitor)*": the current reader has the star.
std::string DescribeProcesses(const Json& processes)
{
    std::string text;
    for (const Json& process : processes) {
        const std::string pid = process["pid"].dump();
        std::string name;
        std::getline(std::ifstream("/proc/" + pid + "/comm"), name);
        text.append(text.empty() ? "" : " ").append(pid).append("(").append(name);
        text.append(process.value("current", false) ? ")*" : ")");
    }
    return text;
}

std::string Align(const std::string& name, const std::string& server, const std::string& readers,
                  const std::string& observers)
{
    char text[1024];
    std::snprintf(text, sizeof(text), "%-22s %-24s %-25s %s", name.c_str(), server.c_str(), readers.c_str(),
                  observers.c_str());
    const std::string row = text;
    return row.substr(0, row.find_last_not_of(' ') + 1);
}

std::string ToRow(const Json& resource)
{
    const bool answers = resource["answers"].get<bool>();
    return Align(resource["resource"].get<std::string>(), DescribeProcesses(Json::array({{{"pid", resource["pid"]}}})),
                 answers ? DescribeProcesses(resource["readers"]) : "(does not answer)",
                 DescribeProcesses(resource["observers"]));
}

// Which resources are served on this machine, by whom, and who reads them: a row or a JSON object for each. Returns the
// exit code.
int ListResources(bool json)
{
    const platform::Listing listing = platform::List();
    if (listing.error != 0) {
        throw std::system_error(listing.error, std::generic_category(), listing.directory);
    }
    if (listing.resources.empty()) {
        Notify("no resource is served in " + listing.directory);
        return EXIT_SUCCESS;
    }
    std::string text = json ? "" : Align("RESOURCE", "SERVED BY", "READERS", "OBSERVERS") + '\n';
    for (const Json& resource : listing.resources) {
        text += (json ? ToLine(resource) : Printable(ToRow(resource))) + '\n';
    }
    return PrintText(text);
}

int Run(Options& options)
{
    options.subscription.Complete();
    if (!options.verbose) {
        platform::Quiet();
    }
    return options.list ? ListResources(options.printer.json) : Monitor(options);
}

}  // namespace
}  // namespace tools

int main(int argc, char** argv)
{
    tools::Options options;
    return tools::RunProgram(
        argc, argv,
        {"report-event-monitor", REPORT_EVENT_VERSION, tools::HELP,
         [&options](CLI::App& app) { tools::AddOptions(app, options); }, [&options] { return tools::Run(options); }});
}

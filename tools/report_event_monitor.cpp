// report-event-monitor: prints the events of this machine's publishers as they arrive.
#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <exception>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "report_event/ReportEventServer.h"
#include "report_event/ResourceNames.h"
#include "tools/EventPrinter.h"
#include "tools/Platform.h"
#include "tools/Subscription.h"
#include "tools/ToolSupport.h"

namespace tools {
namespace {

struct Options {
    std::vector<std::string> faultFiles;
    bool security = false;
    bool json = false;
    bool utc = false;
    bool delta = false;
    bool follow = false;
    uint64_t count = EventPrinter::UNLIMITED;

    std::vector<std::string> AllFiles() const
    {
        std::vector<std::string> files = faultFiles;
        if (security) {
            files.emplace_back(ReportEvent::SECURITY_RESOURCE);
        }
        return files;
    }
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
    app.add_option("--fault", options.faultFiles,
                   std::string("Subscribe to the fault events of this resource; may be repeated\n"
                               "(without --fault and --security: ") +
                       ReportEvent::PM_FAULT_RESOURCE + ")")
        ->type_name("NAME")
        ->allow_extra_args(false);
    app.add_flag("--security", options.security,
                 std::string("Subscribe to the security events, ") + ReportEvent::SECURITY_RESOURCE);
    app.add_flag("--json", options.json,
                 "Print one JSON object per line, in a form that stays (docs/json.md)\n"
                 "and that report-event-publish --from publishes again");
    app.add_flag("--utc", options.utc, "Show times in UTC, not in local time");
    app.add_flag("--delta", options.delta,
                 "Show, in the place of the time of arrival, the seconds since the row before");
    AddNumber(app, "--count", options.count, 1, EventPrinter::UNLIMITED - 1, "End after N events");
    app.add_flag("--follow", options.follow,
                 "Wait for resources that are not there, and register again when one goes\n"
                 "away, until it is back");
}

const char* Describe(ReportEvent::NameFault fault)
{
    switch (fault) {
        case ReportEvent::NameFault::HAS_DOT:
            return "it has a '.'";
        case ReportEvent::NameFault::NO_COLON:
            return "it has no ':'";
        case ReportEvent::NameFault::WRONG_PREFIX:
            return "its first ':' is not followed by \"/res/\"";
        default:
            return "it has a NUL character";
    }
}

// What the library would reject, found here so that the name at fault can be told.
void CheckFaultFiles(const std::vector<std::string>& files)
{
    std::set<std::string> seen;
    for (const std::string& file : files) {
        const ReportEvent::NameFault fault = ReportEvent::CheckResourceName(file);
        if (fault != ReportEvent::NameFault::NONE) {
            throw CLI::ValidationError("--fault", "'" + file + "' is not a resource name: " + Describe(fault));
        }
        if (!seen.insert(file).second) {
            throw CLI::ValidationError("--fault", "'" + file + "' is given twice");
        }
    }
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
    for (const std::string& file : options.AllFiles()) {
        format.rows.resourceWidth = std::max(format.rows.resourceWidth, file.size());
    }
    return format;
}

// What the callbacks do. Those of either family get what comes in on the files of both.
class Receiver {
public:
    Receiver(std::vector<std::string> files, EventPrinter& printer) : files_(std::move(files)), printer_(printer)
    {
    }

    void OnFault(const EventInfo& event, const UDSInfoForCpp& uds) const
    {
        printer_.Print(MakeEvent(platform::SourceOfThisThread(files_), std::chrono::system_clock::now(), event, uds));
    }
    void OnDevice(ReportEvent::EventType family, const dsmi_event& event) const
    {
        printer_.Print(
            MakeEvent(platform::SourceOfThisThread(files_), std::chrono::system_clock::now(), family, event));
    }

private:
    const std::vector<std::string> files_;
    EventPrinter& printer_;
};

void AddSubscriptions(std::deque<Subscription>& subscriptions, const Options& options, const Receiver& receiver)
{
    if (!options.faultFiles.empty()) {
        const auto& files = options.faultFiles;
        subscriptions.emplace_back(
            files,
            [&files, &receiver] {
                return ReportEventServer::GetInstance().FmRegisterMidReportEventImpl(
                    files,
                    [&receiver](const EventInfo& event, const UDSInfoForCpp& uds) { receiver.OnFault(event, uds); },
                    [&receiver](const dsmi_event& event) { receiver.OnDevice(ReportEvent::FAULT_EVENT, event); });
            },
            [&files] { return ReportEventServer::GetInstance().FmUnregisterReportEventImpl(files); });
    }
    if (options.security) {
        subscriptions.emplace_back(
            std::vector<std::string>{ReportEvent::SECURITY_RESOURCE},
            [&receiver] {
                return ReportEventServer::GetInstance().RegIDSEventReportHandlerImpl(
                    [&receiver](const dsmi_event& event) { receiver.OnDevice(ReportEvent::SECURITY_EVENT, event); });
            },
            [] { return ReportEventServer::GetInstance().UnregIDSEventReportHandlerImpl(); });
    }
}

enum class Wake { Timeout, StopSignal, PrinterEnded, OutputClosed };

Wake WaitForWake(const StopSignals& signals, const EventPrinter& printer, int timeout)
{
    // Standard output with no events asked for: a pipe whose reader has left is told all the same.
    pollfd waited[] = {
        {signals.Descriptor(), POLLIN, 0}, {printer.EndedDescriptor(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    int ready = 0;
    do {
        ready = poll(waited, 3, timeout);
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) {
        return Wake::Timeout;
    }
    if (waited[0].revents != 0) {
        return Wake::StopSignal;
    }
    return waited[1].revents != 0 ? Wake::PrinterEnded : Wake::OutputClosed;
}

// Returns false when a family could not be subscribed and nobody asked to wait for it.
bool StartAll(std::deque<Subscription>& subscriptions, bool follow)
{
    for (Subscription& subscription : subscriptions) {
        const int result = subscription.Start();
        if (result == 0) {
            continue;
        }
        const std::string what = subscription.Files() + ": cannot subscribe: " + DescribeResult(result);
        if (!follow) {
            Complain(what + "; is its publisher running as this user?");
            return false;
        }
        Notify(what + "; waiting for it");
    }
    return true;
}

int Monitor(const Options& options)
{
    const StopSignals signals;
    EventPrinter printer(STDOUT_FILENO, ChooseFormat(options), options.count);

    const Receiver receiver(options.AllFiles(), printer);
    std::deque<Subscription> subscriptions;
    AddSubscriptions(subscriptions, options, receiver);
    const bool started = StartAll(subscriptions, options.follow);
    const int timeout = options.follow ? static_cast<int>(Subscription::LOOK_INTERVAL.count()) : -1;
    while (started && WaitForWake(signals, printer, timeout) == Wake::Timeout) {
        for (Subscription& subscription : subscriptions) {
            subscription.Renew();
        }
    }

    printer.Stop();
    subscriptions.clear();
    return AfterOutput(printer.WriteError(), started ? EXIT_SUCCESS : EXIT_RUNTIME_FAILURE);
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
        app.callback([&options] { tools::CheckFaultFiles(options.faultFiles); });
        if (const auto exitCode = tools::ParseCommandLine(app, argc, argv)) {
            return *exitCode;
        }
        if (options.faultFiles.empty() && !options.security) {
            options.faultFiles.emplace_back(ReportEvent::PM_FAULT_RESOURCE);
        }
        return tools::Monitor(options);
    } catch (const std::exception& error) {
        tools::Complain(error.what());
        return tools::EXIT_RUNTIME_FAILURE;
    }
}

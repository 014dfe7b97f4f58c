#include "tools/Subscription.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include "report_event/ReportEventServer.h"
#include "report_event/ResourceNames.h"
#include "report_event/ResultCodes.h"
#include "tools/Platform.h"
#include "tools/ToolSupport.h"

namespace tools {

namespace {

// At least between two starts, which interrupt the streams that are there.
constexpr std::chrono::seconds RENEWAL_PAUSE{1};

// A thread just started does not bear its name yet: what one look has found does not count.
constexpr int LOOKS_THAT_COUNT = 2;

// A stream that is lost piece by piece is told so once a second.
constexpr int LOOKS_PER_NOTICE = 5;

// What the end of the last stream has left with the fault-reporting library, which an unregistration would discard, has
// arrived by then.
constexpr int LOOKS_UNTIL_OVER = 6;

using CLI::detail::join;

// The library keeps one read thread per subscribed file and ends it when the file is lost for good; it has no call that
// tells. Returns those of `files` that lack their thread. Files that agree in their first 12 characters are told apart
// by number only: when one of them lacks its thread, all are returned.
std::set<std::string> FilesWithoutReadThread(const std::vector<std::string>& files)
{
    std::map<std::string, int> missing;
    for (const std::string& file : files) {
        ++missing[ReadThreadName(file)];
    }
    std::error_code error;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task", error)) {
        std::string name;
        std::getline(std::ifstream(thread.path() / "comm"), name);
        --missing[name];
    }
    std::set<std::string> lost;
    for (const std::string& file : files) {
        if (!error && missing[ReadThreadName(file)] > 0) {
            lost.insert(file);
        }
    }
    return lost;
}

// The other process that is the current reader of the file; 0 when none is known.
int OtherReaderOf(const platform::Listing& listing, const std::string& file)
{
    for (const Json& reader : listing.resources.value(file, Json::object()).value("readers", Json::array())) {
        if (reader["current"] == true && reader["pid"] != getpid()) {
            return reader["pid"].get<int>();
        }
    }
    return 0;
}

void TellWhoseStreamsAreTaken(const std::vector<std::string>& files)
{
    const platform::Listing listing = platform::List();
    for (const std::string& file : files) {
        if (const int reader = OtherReaderOf(listing, file)) {
            Notify("taking the stream of " + file + " from process " + std::to_string(reader));
        }
    }
}

// Why a registration of `files` has returned `result`, for people.
std::string DescribeFailure(const std::vector<std::string>& files, int result)
{
    const platform::Listing listing = platform::List();
    const std::string where = " in " + listing.directory;
    if (!platform::IS_HOST) {
        return join(files, ", ") + ": " + DescribeResult(result);
    }
    if (listing.error != 0) {
        return join(files, ", ") + where + ": " + std::generic_category().message(listing.error);
    }
    for (const std::string& file : files) {
        const auto found = listing.resources.find(file);
        if (found == listing.resources.end()) {
            return std::string(file).append(": nobody serves it").append(where);
        }
        if (found->at("answers") == false) {
            return file + ": process " + found->at("pid").dump() + " serves it and does not answer";
        }
    }
    return join(files, ", ") + ": " + DescribeResult(result) + where;
}

}  // namespace

std::string ReadThreadName(const std::string& file)
{
    return ("Rd_" + file).substr(0, READ_THREAD_NAME_LENGTH);
}

// ---------------------------------------------------------------------------------------------------------------------
// Options

void SubscriptionOptions::AddTo(CLI::App& app)
{
    app.add_option("--fault", faultFiles)->allow_extra_args(false);
    app.add_flag("--security", security);
    app.add_flag("--follow", follow);
    if (platform::IS_HOST) {
        app.add_flag("--observe", observe);
    }
}

void SubscriptionOptions::Complete()
{
    for (const std::string& file : faultFiles) {
        if (ReportEvent::CheckResourceName(file) != ReportEvent::NameFault::NONE) {
            throw CLI::ValidationError("--fault", "'" + file + "' is not a resource name such as dp:/res/pm/fm");
        }
        if (std::count(faultFiles.begin(), faultFiles.end(), file) > 1) {
            throw CLI::ValidationError("--fault", "'" + file + "' is given twice");
        }
    }
    if (faultFiles.empty() && !security) {
        faultFiles.emplace_back(ReportEvent::PM_FAULT_RESOURCE);
    }
}

std::vector<std::string> SubscriptionOptions::AllFiles() const
{
    std::vector<std::string> files = faultFiles;
    if (security) {
        files.emplace_back(ReportEvent::SECURITY_RESOURCE);
    }
    return files;
}

// ---------------------------------------------------------------------------------------------------------------------
// Subscriptions

Subscriptions::Subscriptions(const SubscriptionOptions& options, Deliver deliver)
    : files_(options.AllFiles()), follow_(options.follow), observe_(options.observe), deliver_(std::move(deliver))
{
    if (observe_) {
        platform::Observe();
    }
    // In this order: a file of faults that carries security events, too, finds both callbacks.
    if (options.security) {
        families_.push_back({ReportEvent::SECURITY_EVENT, {{ReportEvent::SECURITY_RESOURCE, State::UNKNOWN}}});
    }
    if (!options.faultFiles.empty()) {
        families_.push_back({ReportEvent::FAULT_EVENT, {}});
    }
    for (const std::string& file : options.faultFiles) {
        families_.back().files.emplace(file, State::UNKNOWN);
    }
}

Subscriptions::~Subscriptions()
{
    Stop();
}

template <typename... Event>
void Subscriptions::HandOn(const Event&... event) const
{
    const SystemTime arrival = Now();
    deliver_(ToJson(platform::SourceOfThisThread(files_), arrival, event...), arrival);
}

// The callbacks of either family get what comes in on the files of both. They capture one pointer each: every delivery
// copies them.
int Subscriptions::Register(const Family& family) const
{
    ReportEventServer& server = ReportEventServer::GetInstance();
    const auto onDevice = [this](const dsmi_event& event) { HandOn(ReportEvent::FAULT_EVENT, event); };
    const auto onFault = [this](const EventInfo& event, const UDSInfoForCpp& uds) { HandOn(event, uds); };
    const auto onSecurity = [this](const dsmi_event& event) { HandOn(ReportEvent::SECURITY_EVENT, event); };
    if (family.type == ReportEvent::SECURITY_EVENT) {
        return server.RegIDSEventReportHandlerImpl(onSecurity);
    }
    return server.FmRegisterMidReportEventImpl(family.registered, onFault, onDevice);
}

bool Subscriptions::Start()
{
    for (Family& family : families_) {
        const int result = Start(family);
        if (result != ReportEvent::RESULT_OK && !follow_) {
            Complain("cannot subscribe to " + DescribeFailure(family.registered, result));
            return false;
        }
    }
    return true;
}

void Subscriptions::Look()
{
    for (Family& family : families_) {
        Look(family);
        if (IsRenewalDue(family)) {
            Stop(family);
            Start(family);
        }
    }
}

bool Subscriptions::AreOver() const
{
    const auto isGone = [this](const auto& file) {
        return file.second == State::TAKEN || (file.second == State::ABSENT && !follow_);
    };
    const auto isOver = [&isGone](const Family& family) {
        return family.equalLooks >= LOOKS_UNTIL_OVER && std::all_of(family.files.begin(), family.files.end(), isGone);
    };
    return std::all_of(families_.begin(), families_.end(), isOver);
}

void Subscriptions::Stop()
{
    for (Family& family : families_) {
        Stop(family);
    }
}

// What is already known about single files stays until a look finds something else.
int Subscriptions::Start(Family& family) const
{
    for (const auto& [file, state] : family.files) {
        if (state != State::TAKEN) {
            family.registered.push_back(file);
        }
    }
    if (!observe_) {
        TellWhoseStreamsAreTaken(family.registered);
    }
    family.lastStart = Clock::now();
    family.equalLooks = 0;
    const int result = Register(family);
    if (result != ReportEvent::RESULT_OK) {
        return result;
    }
    for (const std::string& file : family.registered) {
        family.files[file] = State::RECEIVING;
    }
    Notify((observe_ ? "observing " : "receiving ") + join(family.registered, ", "));
    return result;
}

void Subscriptions::Stop(Family& family)
{
    TellLostRecords(family);
    const Files files = std::exchange(family.registered, {});
    ReportEventServer& server = ReportEventServer::GetInstance();
    if (!files.empty() && family.type == ReportEvent::SECURITY_EVENT) {
        server.UnregIDSEventReportHandlerImpl();
    } else if (!files.empty()) {
        server.FmUnregisterReportEventImpl(files);
    }
}

// What an observer was too slow for, since the file was opened.
void Subscriptions::TellLostRecords(Family& family)
{
    for (const std::string& file : family.registered) {
        const uint64_t lost = platform::LostRecords(file);
        if (lost > family.toldLost[file]) {
            Notify(file + ": too slow for " + std::to_string(lost - family.toldLost[file]) +
                   " records, which are lost");
        }
        family.toldLost[file] = lost;
    }
}

void Subscriptions::Look(Family& family) const
{
    if (++family.looks % LOOKS_PER_NOTICE == 0) {
        TellLostRecords(family);
    }
    const std::set<std::string> lost = FilesWithoutReadThread(family.registered);
    family.equalLooks = std::exchange(family.lastLost, lost) == lost ? family.equalLooks + 1 : 1;
    if (family.equalLooks < LOOKS_THAT_COUNT) {
        return;
    }
    for (auto& [file, state] : family.files) {
        state = StateAfterLook(file, state, lost.count(file) != 0);
    }
}

Subscriptions::State Subscriptions::StateAfterLook(const std::string& file, State before, bool isLost) const
{
    if (before == State::TAKEN) {
        return before;
    }
    if (!isLost) {
        if (before != State::RECEIVING) {
            Notify((observe_ ? "observing " : "receiving ") + file);
        }
        return State::RECEIVING;
    }
    if (platform::HasLostPlace(file)) {
        const int reader = OtherReaderOf(platform::List(), file);
        const std::string who = reader == 0 ? "" : " (process " + std::to_string(reader) + ")";
        Notify("another reader has taken " + file + who + "; it is not taken back");
        return State::TAKEN;
    }
    if (before == State::RECEIVING) {
        Notify("lost " + file + (follow_ ? "; waiting until it is served" : ""));
    } else if (before == State::UNKNOWN) {
        Notify("waiting for " + DescribeFailure({file}, ReportEvent::RESULT_OPEN_FAILED));
    }
    return State::ABSENT;
}

// Whether somebody serves a file that is waited for.
bool Subscriptions::IsRenewalDue(const Family& family) const
{
    const auto isAbsent = [](const auto& file) { return file.second == State::ABSENT; };
    if (!follow_ || Clock::now() - family.lastStart < RENEWAL_PAUSE ||
        std::none_of(family.files.begin(), family.files.end(), isAbsent)) {
        return false;
    }
    const platform::Listing listing = platform::List();
    return std::any_of(family.files.begin(), family.files.end(), [&](const auto& file) {
        return isAbsent(file) &&
               (!platform::IS_HOST || listing.resources.value(file.first, Json::object()).value("answers", false));
    });
}

}  // namespace tools

#include "tools/Subscription.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <system_error>
#include <utility>

#include "report_event/ReportEventServer.h"
#include "report_event/ResourceNames.h"
#include "report_event/ResultCodes.h"
#include "tools/Platform.h"
#include "tools/ToolSupport.h"

namespace tools {

namespace {

// Between two starts, when what is served cannot be opened, or when nobody tells what is served.
constexpr std::chrono::milliseconds LONGEST_PAUSE{5000};

// Until the last stream counts as gone for good. What its end has left with the fault-reporting library, which an
// unregistration would discard, has arrived by then.
constexpr int LOOKS_UNTIL_OVER = 5;

std::string Join(const Files& names)
{
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

bool Contains(const Files& files, const std::string& name)
{
    return std::find(files.begin(), files.end(), name) != files.end();
}

const platform::Resource* Find(const std::vector<platform::Resource>& resources, const std::string& name)
{
    for (const platform::Resource& resource : resources) {
        if (resource.name == name) {
            return &resource;
        }
    }
    return nullptr;
}

// Which process reads the stream of a resource, as text; empty when it is this one, or none, or nobody knows.
std::string DescribeReader(const platform::Resource* resource)
{
    if (resource == nullptr) {
        return "";
    }
    for (const platform::Reader& reader : resource->readers) {
        if (reader.isCurrent && reader.pid != getpid()) {
            return "process " + std::to_string(reader.pid);
        }
    }
    return "";
}

void TellWhoLosesItsStream(const Files& files)
{
    std::vector<platform::Resource> resources;
    platform::List(resources);
    for (const std::string& file : files) {
        const std::string reader = DescribeReader(Find(resources, file));
        if (!reader.empty()) {
            Notify("taking the stream of " + file + " from " + reader);
        }
    }
}

// Why a registration of `files` has returned `result`, for people.
std::string DescribeFailure(const Files& files, int result)
{
    std::vector<platform::Resource> resources;
    const int error = platform::List(resources);
    const std::string where = " in " + platform::RuntimeDirectory();
    if (error == -ENOSYS) {
        return Join(files) + ": " + DescribeResult(result);
    }
    if (error != 0) {
        return Join(files) + ": " + std::generic_category().message(-error) + where;
    }
    for (const std::string& file : files) {
        const platform::Resource* const resource = Find(resources, file);
        if (resource == nullptr) {
            return file + ": nobody serves it" + where;
        }
        if (!resource->answers) {
            return file + ": process " + std::to_string(resource->pid) + " serves it" + where + " and does not answer";
        }
    }
    return Join(files) + ": " + DescribeResult(result) + where;
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

}  // namespace

std::string ReadThreadName(const std::string& file)
{
    return ("Rd_" + file).substr(0, READ_THREAD_NAME_LENGTH);
}

Files FilesWithoutReadThread(const Files& files)
{
    std::map<std::string, int> missing;
    for (const std::string& file : files) {
        ++missing[ReadThreadName(file)];
    }
    std::error_code error;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task", error)) {
        std::string name;
        std::getline(std::ifstream(thread.path() / "comm"), name);
        const auto found = missing.find(name);
        if (found != missing.end()) {
            --found->second;
        }
    }
    Files lost;
    for (const std::string& file : files) {
        if (!error && missing[ReadThreadName(file)] > 0) {
            lost.push_back(file);
        }
    }
    return lost;
}

// ---------------------------------------------------------------------------------------------------------------------
// Options

void SubscriptionOptions::AddTo(CLI::App& app)
{
    app.add_option("--fault", faultFiles,
                   std::string("Subscribe to the fault events of this resource; may be repeated\n"
                               "(without --fault and --security: ") +
                       ReportEvent::PM_FAULT_RESOURCE + ")")
        ->type_name("NAME")
        ->allow_extra_args(false);
    app.add_flag("--security", security,
                 std::string("Subscribe to the security events, ") + ReportEvent::SECURITY_RESOURCE);
    app.add_flag("--follow", follow,
                 "Wait for resources that are not there, and for those that go away. When\n"
                 "one of several --fault is back, all are registered anew, and what is\n"
                 "published in that moment is lost");
}

void SubscriptionOptions::Complete()
{
    std::set<std::string> seen;
    for (const std::string& file : faultFiles) {
        const ReportEvent::NameFault fault = ReportEvent::CheckResourceName(file);
        if (fault != ReportEvent::NameFault::NONE) {
            throw CLI::ValidationError("--fault", "'" + file + "' is not a resource name: " + Describe(fault));
        }
        if (!seen.insert(file).second) {
            throw CLI::ValidationError("--fault", "'" + file + "' is given twice");
        }
    }
    if (faultFiles.empty() && !security) {
        faultFiles.emplace_back(ReportEvent::PM_FAULT_RESOURCE);
    }
}

Files SubscriptionOptions::AllFiles() const
{
    Files files = faultFiles;
    if (security) {
        files.emplace_back(ReportEvent::SECURITY_RESOURCE);
    }
    return files;
}

// ---------------------------------------------------------------------------------------------------------------------
// One family

Subscription::Subscription(const Files& files, bool follow, Operation registerFiles, Operation unregisterFiles)
    : follow_(follow), registerFiles_(std::move(registerFiles)), unregisterFiles_(std::move(unregisterFiles))
{
    for (const std::string& file : files) {
        files_.push_back({file});
    }
}

Subscription::~Subscription()
{
    Stop();
}

int Subscription::Start()
{
    for (const File& file : files_) {
        if (file.state != State::Taken) {
            registered_.push_back(file.name);
        }
    }
    TellWhoLosesItsStream(registered_);
    lastStart_ = Clock::now();
    lastLost_.reset();
    looksOver_ = 0;
    const int result = registerFiles_(registered_);
    if (result == ReportEvent::RESULT_OK) {
        for (File& file : files_) {
            file.state = file.state == State::Taken ? State::Taken : State::Receiving;
        }
        pause_ = LOOK_INTERVAL;
        Notify("receiving " + Join(registered_));
    } else {
        pause_ = std::min(2 * pause_, LONGEST_PAUSE);
    }
    return result;
}

// A thread just started does not bear its name yet: only what two looks in a row have found counts.
void Subscription::Look()
{
    const Files lost = FilesWithoutReadThread(registered_);
    if (std::exchange(lastLost_, lost) != lost) {
        return;
    }
    for (File& file : files_) {
        if (file.state != State::Taken) {
            Note(file, Contains(lost, file.name));
        }
    }
    const size_t taken = NamesIn(State::Taken).size();
    const size_t gone = taken + (follow_ ? 0 : NamesIn(State::Absent).size());
    looksOver_ = gone == files_.size() ? looksOver_ + 1 : 0;
    if (IsRenewalDue()) {
        Stop();
        Start();
    }
}

bool Subscription::IsOver() const
{
    return looksOver_ >= LOOKS_UNTIL_OVER;
}

void Subscription::Stop()
{
    const Files files = std::exchange(registered_, {});
    if (!files.empty()) {
        unregisterFiles_(files);
    }
}

Files Subscription::AllFiles() const
{
    Files names;
    for (const File& file : files_) {
        names.push_back(file.name);
    }
    return names;
}

Files Subscription::NamesIn(State state) const
{
    Files names;
    for (const File& file : files_) {
        if (file.state == state) {
            names.push_back(file.name);
        }
    }
    return names;
}

void Subscription::Note(File& file, bool isLost) const
{
    if (!isLost) {
        if (std::exchange(file.state, State::Receiving) != State::Receiving) {
            Notify("receiving " + file.name);
        }
        return;
    }
    if (platform::HasLostPlace(file.name)) {
        file.state = State::Taken;
        Notify("another reader has taken " + file.name + "; it is not taken back");
        return;
    }
    const State before = std::exchange(file.state, State::Absent);
    if (before == State::Receiving) {
        Notify("lost " + file.name + (follow_ ? "; waiting until it is served" : ""));
    } else if (before == State::Unknown && follow_) {
        Notify("waiting for " + DescribeFailure({file.name}, ReportEvent::RESULT_OPEN_FAILED));
    }
}

// Whether somebody serves a file that is waited for. To register again interrupts the streams that are there.
bool Subscription::IsRenewalDue() const
{
    const Files absent = NamesIn(State::Absent);
    if (!follow_ || absent.empty() || Clock::now() - lastStart_ < pause_) {
        return false;
    }
    std::vector<platform::Resource> resources;
    if (platform::List(resources) == -ENOSYS) {
        return true;
    }
    return std::any_of(absent.begin(), absent.end(), [&resources](const std::string& file) {
        const platform::Resource* const resource = Find(resources, file);
        return resource != nullptr && resource->answers;
    });
}

// ---------------------------------------------------------------------------------------------------------------------
// All families

// The callbacks of either family get what comes in on the files of both. They capture one pointer: each delivery copies
// them.
Subscriptions::Subscriptions(const SubscriptionOptions& options, std::function<void(const Event&)> deliver)
    : files_(options.AllFiles()), follow_(options.follow), deliver_(std::move(deliver))
{
    ReportEventServer& server = ReportEventServer::GetInstance();
    if (!options.faultFiles.empty()) {
        subscriptions_.emplace_back(
            options.faultFiles, follow_,
            [this, &server](const Files& files) {
                return server.FmRegisterMidReportEventImpl(
                    files, [this](const EventInfo& event, const UDSInfoForCpp& uds) { Deliver(event, uds); },
                    [this](const dsmi_event& event) { Deliver(ReportEvent::FAULT_EVENT, event); });
            },
            [&server](const Files& files) { return server.FmUnregisterReportEventImpl(files); });
    }
    if (options.security) {
        subscriptions_.emplace_back(
            Files{ReportEvent::SECURITY_RESOURCE}, follow_,
            [this, &server](const Files&) {
                return server.RegIDSEventReportHandlerImpl(
                    [this](const dsmi_event& event) { Deliver(ReportEvent::SECURITY_EVENT, event); });
            },
            [&server](const Files&) { return server.UnregIDSEventReportHandlerImpl(); });
    }
}

bool Subscriptions::Start()
{
    for (Subscription& subscription : subscriptions_) {
        const int result = subscription.Start();
        if (result != ReportEvent::RESULT_OK && !follow_) {
            Complain("cannot subscribe to " + DescribeFailure(subscription.AllFiles(), result));
            return false;
        }
    }
    return true;
}

void Subscriptions::Look()
{
    for (Subscription& subscription : subscriptions_) {
        subscription.Look();
    }
}

bool Subscriptions::AreOver() const
{
    return std::all_of(subscriptions_.begin(), subscriptions_.end(),
                       [](const Subscription& subscription) { return subscription.IsOver(); });
}

void Subscriptions::Stop()
{
    for (Subscription& subscription : subscriptions_) {
        subscription.Stop();
    }
}

void Subscriptions::Deliver(const EventInfo& event, const UDSInfoForCpp& uds) const
{
    deliver_(MakeEvent(platform::SourceOfThisThread(files_), std::chrono::system_clock::now(), event, uds));
}

void Subscriptions::Deliver(ReportEvent::EventType family, const dsmi_event& event) const
{
    deliver_(MakeEvent(platform::SourceOfThisThread(files_), std::chrono::system_clock::now(), family, event));
}

}  // namespace tools

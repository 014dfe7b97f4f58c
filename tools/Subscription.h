// Subscribing to event families for as long as a program runs: what becomes of each resource is told on standard error,
// a line for each change, and one that goes away for good is subscribed to again when it is back.
#ifndef REPORT_EVENT_TOOLS_SUBSCRIPTION_H
#define REPORT_EVENT_TOOLS_SUBSCRIPTION_H

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/Event.h"

namespace tools {

using Files = std::vector<std::string>;

// The system keeps that much of a thread's name.
constexpr size_t READ_THREAD_NAME_LENGTH = 15;
std::string ReadThreadName(const std::string& file);

// The library keeps one read thread per subscribed file and ends it when the file is lost for good; it has no call that
// tells. Returns those of `files` that lack their thread. Files that agree in their first 12 characters are told apart
// by number only: when one of them lacks its thread, all are returned.
Files FilesWithoutReadThread(const Files& files);

// What the command line says about subscribing.
struct SubscriptionOptions {
    Files faultFiles;
    bool security = false;
    bool follow = false;

    void AddTo(CLI::App& app);
    // Throws CLI::ValidationError for a name that the library would reject. Without any, chooses the default.
    void Complete();
    // All of them.
    Files AllFiles() const;
};

// One event family. Used by one thread. The destructor unregisters, which waits for callbacks in flight.
class Subscription {
public:
    using Operation = std::function<int(const Files&)>;

    // `registerFiles` and `unregisterFiles` are operations of the library, for the given files of the family. With
    // `follow`, files that are lost or were never there are waited for.
    Subscription(const Files& files, bool follow, Operation registerFiles, Operation unregisterFiles);
    ~Subscription();
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

    // Registers; returns the library's code. After a failure, some of the files may be subscribed.
    int Start();
    // Looks what has become of the files, tells what has changed, and renews the subscription if that can help. To be
    // called every LOOK_INTERVAL.
    void Look();
    // Whether nothing can arrive any more: every file is gone for good.
    bool IsOver() const;
    Files AllFiles() const;
    void Stop();

    static constexpr std::chrono::milliseconds LOOK_INTERVAL{200};

private:
    using Clock = std::chrono::steady_clock;

    enum class State {
        Unknown,    // registered, and not looked at yet
        Receiving,  // it has its read thread
        Absent,     // lost, or never there
        Taken,      // another reader has it; not taken back
    };
    struct File {
        std::string name;
        State state = State::Unknown;
    };

    Files NamesIn(State state) const;
    void Note(File& file, bool isLost) const;
    bool IsRenewalDue() const;

    std::vector<File> files_;
    const bool follow_;
    const Operation registerFiles_;
    const Operation unregisterFiles_;
    Files registered_;               // unregistration is due for these
    std::optional<Files> lastLost_;  // what the look before found; nothing after a start
    int looksOver_ = 0;              // in a row that found nothing alive
    Clock::time_point lastStart_;
    std::chrono::milliseconds pause_{LOOK_INTERVAL};  // between two starts
};

// The subscriptions of a program. Used by one thread.
class Subscriptions {
public:
    // `deliver` is called for each event, on the threads that deliver them.
    Subscriptions(const SubscriptionOptions& options, std::function<void(const Event&)> deliver);

    // Returns false when a resource cannot be subscribed and nobody asked to wait for it, which has been reported.
    bool Start();
    // To be called every Subscription::LOOK_INTERVAL.
    void Look();
    // Whether nothing can arrive any more.
    bool AreOver() const;
    // Unregisters, which waits for callbacks in flight.
    void Stop();

private:
    void Deliver(const EventInfo& event, const UDSInfoForCpp& uds) const;
    void Deliver(ReportEvent::EventType family, const dsmi_event& event) const;

    const Files files_;
    const bool follow_;
    const std::function<void(const Event&)> deliver_;
    std::deque<Subscription> subscriptions_;
};

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_SUBSCRIPTION_H

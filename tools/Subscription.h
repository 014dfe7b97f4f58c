// Subscribing to events for as long as a program runs: what becomes of each resource is told on standard error, a line
// for each change, and one that goes away for good is subscribed to again when it is back.
#ifndef REPORT_EVENT_TOOLS_SUBSCRIPTION_H
#define REPORT_EVENT_TOOLS_SUBSCRIPTION_H

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/EventJson.h"

namespace tools {

// The library names a file's read thread after it; the system keeps that much of the name.
constexpr size_t READ_THREAD_NAME_LENGTH = 15;
std::string ReadThreadName(const std::string& file);

// What the command line says about subscribing.
struct SubscriptionOptions {
    std::vector<std::string> faultFiles;
    bool security = false;
    bool follow = false;
    bool observe = false;

    void AddTo(CLI::App& app);
    // Throws CLI::ValidationError for a name that the library would reject. Without any, chooses the default.
    void Complete();
    // The names of all resources.
    std::vector<std::string> AllFiles() const;
};

// Used by one thread. The destructor unregisters, which waits for callbacks in flight.
class Subscriptions {
public:
    using Deliver = std::function<void(const Json& event, SystemTime arrival)>;

    // `deliver` is called for each event, on the threads that deliver them.
    Subscriptions(const SubscriptionOptions& options, Deliver deliver);
    ~Subscriptions();
    Subscriptions(Subscriptions&&) = delete;

    // Registers. Returns false when a resource cannot be subscribed and nobody asked to wait for it, which has been
    // reported.
    bool Start();
    // Looks what has become of the resources, tells what has changed, and registers again where that can help. To be
    // called every LOOK_INTERVAL.
    void Look();
    // Whether nothing can arrive any more: every resource is gone for good.
    bool AreOver() const;
    void Stop();

    static constexpr std::chrono::milliseconds LOOK_INTERVAL{200};

private:
    using Clock = std::chrono::steady_clock;
    using Files = std::vector<std::string>;

    enum class State {
        UNKNOWN,    // registered, and not looked at yet
        RECEIVING,  // it has its read thread
        ABSENT,     // lost, or never there
        TAKEN,      // another reader has it; not taken back
    };
    // The library registers and unregisters all files of a family together.
    struct Family {
        ReportEvent::EventType type;
        std::map<std::string, State> files;
        Files registered{};  // unregistration is due for these
        std::set<std::string> lastLost{};
        int equalLooks = 0;  // in a row that have found the same
        int looks = 0;
        std::map<std::string, uint64_t> toldLost{};  // of an observer, by file
        Clock::time_point lastStart{};
    };

    template <typename... Event>
    void HandOn(const Event&... event) const;
    int Register(const Family& family) const;
    int Start(Family& family) const;
    static void Stop(Family& family);
    static void TellLostRecords(Family& family);
    void Look(Family& family) const;
    State StateAfterLook(const std::string& file, State before, bool isLost) const;
    bool IsRenewalDue(const Family& family) const;

    const Files files_;
    const bool follow_;
    const bool observe_;
    const Deliver deliver_;
    std::vector<Family> families_;
};

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_SUBSCRIPTION_H

// The monitor's subscription to one event family, and how it is renewed when a resource goes away for good.
#ifndef REPORT_EVENT_TOOLS_SUBSCRIPTION_H
#define REPORT_EVENT_TOOLS_SUBSCRIPTION_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace tools {

// The library names a file's read thread after it; the system keeps that much of the name.
constexpr size_t READ_THREAD_NAME_LENGTH = 15;
std::string ReadThreadName(const std::string& file);

// The library keeps one read thread per subscribed file and ends it when the file is lost for good; it has no call that
// tells. Returns those of `files` that lack their thread. The system keeps 15 characters of a thread's name, so files
// that agree in their first 12 are told apart by number only: when one of them lacks its thread, all are returned.
std::vector<std::string> FilesWithoutReadThread(const std::vector<std::string>& files);

// Used by one thread. The destructor unregisters, which waits for callbacks in flight.
class Subscription {
public:
    // `registerFamily` and `unregisterFamily` return a result code of the library.
    Subscription(std::vector<std::string> files, std::function<int()> registerFamily,
                 std::function<int()> unregisterFamily);
    ~Subscription();
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

    // Registers; returns the library's code and says on standard error what happened. After a failure, some of the
    // files may be subscribed.
    int Start();
    // Looks whether a file is lost and, if so, unregisters and registers again, at a bounded pace. To be called every
    // LOOK_INTERVAL.
    void Renew();
    void Stop();
    // The names of the files, for people.
    std::string Files() const;

    static constexpr std::chrono::milliseconds LOOK_INTERVAL{200};

private:
    using Clock = std::chrono::steady_clock;

    bool IsLost();

    const std::vector<std::string> files_;
    const std::function<int()> registerFamily_;
    const std::function<int()> unregisterFamily_;
    bool registered_ = false;  // unregistration is due
    bool complete_ = false;    // every file was opened by the last registration
    int looksWithoutThread_ = 0;
    Clock::time_point lastStart_;
    std::chrono::milliseconds pause_{LOOK_INTERVAL};  // between two tries
};

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_SUBSCRIPTION_H

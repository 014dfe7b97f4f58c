#include "tools/Subscription.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <system_error>
#include <utility>

#include "tools/ToolSupport.h"

namespace tools {

namespace {

// Between two tries to register; each that fails leaves its cause in the log.
constexpr std::chrono::milliseconds LONGEST_PAUSE{1000};

std::string Join(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

}  // namespace

std::string ReadThreadName(const std::string& file)
{
    return ("Rd_" + file).substr(0, READ_THREAD_NAME_LENGTH);
}

std::vector<std::string> FilesWithoutReadThread(const std::vector<std::string>& files)
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
    std::vector<std::string> lost;
    for (const std::string& file : files) {
        if (!error && missing[ReadThreadName(file)] > 0) {
            lost.push_back(file);
        }
    }
    return lost;
}

Subscription::Subscription(std::vector<std::string> files, std::function<int()> registerFamily,
                           std::function<int()> unregisterFamily)
    : files_(std::move(files)),
      registerFamily_(std::move(registerFamily)),
      unregisterFamily_(std::move(unregisterFamily))
{
}

Subscription::~Subscription()
{
    Stop();
}

int Subscription::Start()
{
    lastStart_ = Clock::now();
    looksWithoutThread_ = 0;
    registered_ = true;
    const int result = registerFamily_();
    complete_ = result == 0;
    if (complete_) {
        // Renewing one file interrupts the others of its family: not too often, then.
        pause_ = files_.size() == 1 ? LOOK_INTERVAL : LONGEST_PAUSE;
        Notify("receiving " + Files());
    } else {
        pause_ = std::min(2 * pause_, LONGEST_PAUSE);
    }
    return result;
}

void Subscription::Renew()
{
    if (complete_ && IsLost()) {
        Notify("lost " + Join(FilesWithoutReadThread(files_)) + "; registering again until it is back");
        complete_ = false;
    }
    if (!complete_ && Clock::now() - lastStart_ >= pause_) {
        Stop();
        Start();
    }
}

void Subscription::Stop()
{
    if (std::exchange(registered_, false)) {
        unregisterFamily_();
    }
}

std::string Subscription::Files() const
{
    return Join(files_);
}

// A thread just started does not bear its name yet, and one that has just ended may have left its report with the
// fault-reporting library, which an unregistration would discard: only the second look in a row counts.
bool Subscription::IsLost()
{
    looksWithoutThread_ = FilesWithoutReadThread(files_).empty() ? 0 : looksWithoutThread_ + 1;
    return looksWithoutThread_ >= 2;
}

}  // namespace tools

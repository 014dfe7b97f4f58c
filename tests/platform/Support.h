// What the tests of a platform stand on: what the command line says, waiting, this program in another role, and the
// promise that a test looks at. Needs nothing of any platform.
#ifndef REPORT_EVENT_TESTS_PLATFORM_SUPPORT_H
#define REPORT_EVENT_TESTS_PLATFORM_SUPPORT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace platform_test {

using Clock = std::chrono::steady_clock;

struct Options {
    std::string resource = "dp:/res/unit/events";  // what is served and opened
    std::string log;                               // where the lines of slog arrive: "stderr", a file, or nobody knows
    std::chrono::seconds patience{30};             // far above anything that is expected to happen
    std::vector<std::string> starter;              // words before this program when it starts itself
    std::vector<std::string> forRoles;             // what the other roles are told of all this
};
inline Options options;

// Says what the running test looks at, and what a breach would mean: one sentence, for the verdict.
inline std::string promised;
inline void Promise(const std::string& header, const std::string& promise, const std::string& consequence)
{
    promised = header + ": " + promise + "; otherwise " + consequence;
    testing::Test::RecordProperty("promise", promised);
}

inline bool Eventually(const std::function<bool()>& condition)
{
    for (const auto deadline = Clock::now() + options.patience; !condition(); std::this_thread::yield()) {
        if (Clock::now() > deadline) {
            return false;
        }
    }
    return true;
}

// The exit code of this process, or 128 and the signal that ended it.
inline int StatusOf(pid_t pid)
{
    int status = 0;
    EXPECT_EQ(pid, waitpid(pid, &status, 0));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

constexpr char NO_SECOND_PROCESS[] = "no second process can be started";

// Runs the test "Role.DISABLED_<role>" in a process of its own; it ends with 0 unless an expectation failed. -1 when no
// process can be started.
inline pid_t StartRole(const std::string& role)
{
    std::vector<std::string> words = options.starter;
    char self[4096] = "/proc/self/exe";
    if (!words.empty()) {
        readlink("/proc/self/exe", self, sizeof(self) - 1);
    }
    words.insert(words.end(),
                 {self, "--gtest_also_run_disabled_tests", "--gtest_brief=1", "--gtest_filter=Role.DISABLED_" + role});
    words.insert(words.end(), options.forRoles.begin(), options.forRoles.end());
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    pid_t pid = -1;
    return posix_spawnp(&pid, arguments[0], nullptr, nullptr, arguments.data(), environ) == 0 ? pid : -1;
}

}  // namespace platform_test

#endif  // REPORT_EVENT_TESTS_PLATFORM_SUPPORT_H

// The promises of slog.h that the library rests on.
#include <pthread.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <sstream>

#include "Platform.h"
#include "tests/platform/Support.h"

namespace platform_test {
namespace {

constexpr char HEADER[] = "slog.h";

// What the operation adds to the log; of no use when nobody knows where it arrives.
std::string LogOf(const std::function<void()>& operation)
{
    testing::internal::CaptureStderr();
    std::ifstream file(options.log);
    file.seekg(0, std::ios::end);
    operation();
    DlogFlush();
    const std::string errors = testing::internal::GetCapturedStderr();
    std::ostringstream added;
    added << file.rdbuf();
    return options.log == "stderr" ? errors : added.str();
}

// How many lines of the text have this in them.
int CountLinesWith(const std::string& text, const std::string& part)
{
    std::istringstream lines(text);
    int count = 0;
    for (std::string line; std::getline(lines, line);) {
        count += line.find(part) != std::string::npos ? 1 : 0;
    }
    return count;
}

TEST(Slog, WritesOneLineForEachMessageThatItIsGiven)
{
    Promise(HEADER, "DlogInner and DlogEventInner write one line for each call, which DlogFlush hands over",
            "what happened to a subscription or an event could not be looked up");
    if (options.log.empty()) {
        GTEST_SKIP() << "--log does not say where the lines arrive";
    }
    const std::string log = LogOf([] {
        DlogInner(54, 16, "[%s:%d]ret=0x%X %llu\n", "File.cpp", 7, 0xF10204U, 1234567890123ULL);
        DlogEventInner(0x1000036, "eventId=0x%X;", 0x8C03A000U);
    });
    EXPECT_EQ(1, CountLinesWith(log, "[File.cpp:7]ret=0xF10204 1234567890123")) << log;
    EXPECT_EQ(1, CountLinesWith(log, "eventId=0x8C03A000;")) << log;
    EXPECT_EQ(2, CountLinesWith(log, "")) << log;
}

TEST(Slog, LogsFromASignalHandlerThatInterruptsLogging)
{
    Promise(HEADER, "CheckLogLevel and DlogInner may interrupt themselves and the heap, on any thread",
            "a client that dies would take the process with it: the handler of SIGPIPE logs");
    static std::atomic<int> handled;
    handled = 0;
    std::signal(SIGUSR1, [](int) {
        DlogInner(54, CheckLogLevel(54, 3) == 1 ? 3 : 0, "from the handler");
        ++handled;
    });
    std::atomic<int> interrupted{0};
    const std::string log = LogOf([&] {
        std::atomic<bool> stop{false};
        std::thread logger([&] {
            for (; !stop; ++interrupted) {
                DlogInner(54, 3, "%s", std::string(100, 'i').c_str());
            }
        });
        for (; handled < 300 || interrupted < 300; std::this_thread::yield()) {
            pthread_kill(logger.native_handle(), SIGUSR1);
        }
        stop = true;
        logger.join();
    });
    if (!options.log.empty()) {
        EXPECT_EQ(handled, CountLinesWith(log, "from the handler"));
        EXPECT_EQ(interrupted, CountLinesWith(log, std::string(100, 'i')));
    }
}

// Ends with the number of signals.
TEST(Role, DISABLED_LogsIntoABrokenPipe)
{
    static int signals;
    std::signal(SIGPIPE, [](int) { ++signals; });
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    DlogInner(54, 3, "into nothing");
    _exit(signals);
}

TEST(Slog, RaisesNoSigpipe)
{
    Promise(HEADER, "DlogInner raises no SIGPIPE where its own destination is gone",
            "the handler of SIGPIPE, which logs, would call itself without end");
    if (options.log != "stderr") {
        GTEST_SKIP() << "only where the log goes to standard error (--log=stderr) its destination can be taken away";
    }
    const pid_t pid = StartRole("LogsIntoABrokenPipe");
    if (pid < 0) {
        GTEST_SKIP() << NO_SECOND_PROCESS;
    }
    EXPECT_EQ(0, StatusOf(pid));
}

}  // namespace
}  // namespace platform_test

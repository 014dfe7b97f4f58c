// slog: one line and one write per message whatever it holds, settings from the environment, use in signal handlers.
#include "slog.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fstream>
#include <iostream>
#include <set>
#include <thread>

namespace {

using Lines = std::vector<std::string>;

// Puts `fd` in the place of standard error and closes it; returns what was there.
int Exchange(int fd)
{
    const int previous = dup(STDERR_FILENO);
    dup2(fd, STDERR_FILENO);
    close(fd);
    return previous;
}

// What the operation sends to standard error, one element per system call.
template <typename Operation>
Lines WritesOf(Operation&& operation)
{
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    Lines writes;
    std::thread reader([&] {
        char buffer[8192];
        for (ssize_t size; (size = read(ends[0], buffer, sizeof(buffer))) > 0;) {
            writes.emplace_back(buffer, size);
        }
    });
    const int previous = Exchange(ends[1]);
    operation();
    close(Exchange(previous));
    reader.join();
    close(ends[0]);
    return writes;
}

// Names this thread; what then stands at the start of its lines.
std::string OriginAs(const std::string& threadName)
{
    pthread_setname_np(pthread_self(), threadName.c_str());
    return std::string(program_invocation_short_name) + "[" + std::to_string(getpid()) + "/" + threadName + "] ";
}

// The environment is read when the library is loaded: only a fresh process sees it.
void ExpectErrorOutput(const char* name, const char* value, void (*operation)(), const std::string& errorOutput)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    value == nullptr ? unsetenv(name) : setenv(name, value, 1);
    EXPECT_EXIT((operation(), _exit(0)), testing::ExitedWithCode(0), errorOutput) << (value == nullptr ? "" : value);
    unsetenv(name);
}

TEST(Slog, WritesOneLinePerMessageInOneWrite)
{
    std::string origin = OriginAs("some thread") + "level=3 module=54: ";
    const std::string full(1024 - origin.size() - std::string("...[cut]\n").size(), 'x');
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},     {"\xc3\xbc\n\n", "\xc3\xbc"},    {"a\nb\tc\r\x1b\x7f", "a?b?c???"},
        {full, full}, {full + "x", full + "...[cut]"}, {full + full, full + "...[cut]"}};
    for (const auto& [message, line] : cases) {
        EXPECT_EQ(WritesOf([text = message.c_str()] { DlogInner(54, 3, "%s", text); }), Lines{origin + line + "\n"});
    }
    origin = OriginAs("another one");
    const Lines writes = WritesOf([&] {
        const int previous = Exchange(open("/dev/full", O_WRONLY | O_CLOEXEC));
        errno = 4242;
        DlogInner(54, 3, "lost");
        close(Exchange(previous));
        DlogInner(54, 16, "[%s:%d]ret=0x%X %llu\n", "File.cpp", 7, 0xF10204U, 1234567890123ULL);
        DlogEventInner(0x1000036, "eventId=0x%X;", 0x8C03A000U);
        EXPECT_EQ(errno, 4242);
    });
    EXPECT_EQ(writes, (Lines{origin + "level=16 module=54: [File.cpp:7]ret=0xF10204 1234567890123\n",
                             origin + "event module=0x1000036: eventId=0x8C03A000;\n"}));
}

TEST(Slog, LetsThroughTheLevelsThatTheEnvironmentNames)
{
    const auto print = [] {
        for (int n = -70; n < 140; ++n) {
            std::cerr << (CheckLogLevel(54, n) == 1 ? std::to_string(n) + ";" : "");
        }
    };
    ExpectErrorOutput("SLOG_LEVELS", nullptr, print, "^3;$");
    ExpectErrorOutput("SLOG_LEVELS", "", print, "^$");
    ExpectErrorOutput("SLOG_LEVELS", "2,3,16", print, "^2;3;16;$");
    ExpectErrorOutput("SLOG_LEVELS", "0,63,007", print, "^0;7;63;$");
    for (const std::string bad : {"64", "2,,3", "2,", ",2", "2, 3", "2;16", "-1", "18446744073709551618", "all"}) {
        ExpectErrorOutput("SLOG_LEVELS", bad.c_str(), print, "^[^\n]*SLOG_LEVELS='" + bad + "' is not [^\n]*\n3;$");
    }
}

TEST(Slog, AppendsEventLinesOfAllThreadsToTheEventFile)
{
    // A file without a name in any directory: the process that runs the scenario reaches it through this one.
    const int memory = memfd_create("events", MFD_CLOEXEC);
    ASSERT_EQ(write(memory, "kept\n", 5), 5);
    const std::string path = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(memory);
    const auto logFromTwoThreads = [] {
        const auto log = [](int from) {
            for (int i = from; i < from + 200; ++i) {
                DlogEventInner(0x1000036, "%d", i);
            }
        };
        std::thread other(log, 200);
        log(0);
        other.join();
        DlogFlush();
    };
    ExpectErrorOutput("SLOG_EVENT_FILE", path.c_str(), logFromTwoThreads, "^$");
    std::set<std::string> texts;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        texts.insert(line.substr(line.find(' ') + 1));
    }
    EXPECT_EQ(texts.size(), 401U);
    close(memory);

    ExpectErrorOutput(
        "SLOG_EVENT_FILE", "/proc/no/such/directory", [] { DlogEventInner(0x1000036, "kept in sight"), DlogFlush(); },
        "^[^\n]*SLOG_EVENT_FILE='/proc/no/such/directory' cannot be opened: No such file[^\n]*\n"
        "[^\n]*kept in sight\n$");
}

std::atomic<int> handlerCalls{0};

void InstallLoggingHandler(int signal)
{
    handlerCalls = 0;
    std::signal(signal, [](int) {
        const int interrupted = errno;
        errno = 77;
        DlogInner(54, CheckLogLevel(54, 3) == 1 ? 3 : 0, "from the handler, errno=%d", errno);
        handlerCalls += errno == 77 ? 1 : 0;
        errno = interrupted;
    });
}

// A wrong implementation deadlocks, tears a line, or loses errno.
TEST(Slog, LogsFromASignalHandlerThatInterruptsLogging)
{
    const std::string prefix = OriginAs("storm") + "level=3 module=54: ";  // a new thread inherits its name
    InstallLoggingHandler(SIGUSR1);
    const Lines writes = WritesOf([] {
        std::atomic<bool> stop{false};
        std::thread logger([&] {
            for (; !stop; DlogInner(54, 3, "interrupted %s\n", "message")) {
            }
        });
        for (; handlerCalls < 300; std::this_thread::yield()) {
            pthread_kill(logger.native_handle(), SIGUSR1);
        }
        stop = true;
        logger.join();
    });
    const auto handled = std::count(writes.begin(), writes.end(), prefix + "from the handler, errno=77\n");
    EXPECT_EQ(handled, handlerCalls);
    EXPECT_EQ(handled + std::count(writes.begin(), writes.end(), prefix + "interrupted message\n"),
              std::distance(writes.begin(), writes.end()));
}

// The handler's own message breaks on the same pipe: only silence ends the chain of signals.
TEST(Slog, StaysSilentAfterABrokenPipe)
{
    const auto logToABrokenPipe = [] {
        int ends[2];
        std::cerr << pipe(ends) << close(ends[0]);
        InstallLoggingHandler(SIGPIPE);
        const int previous = Exchange(ends[1]);
        for (int i = 0; i < 5; ++i) {
            DlogInner(54, 3, "into the broken pipe");
        }
        close(Exchange(previous));
        DlogInner(54, 3, "into a whole one");
        std::cerr << handlerCalls;
    };
    ExpectErrorOutput("SLOG_LEVELS", nullptr, logToABrokenPipe, "^00[12]$");
}

}  // namespace

// slog: what this host adds to slog.h: where lines go, how they look, and that nobody waits for that.
#include "slog.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>

#include <csignal>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

#include "platform/host/slog/HostLog.h"
#include "platform/host/slog/LineBudget.h"
#include "tests/unit/iam_support.h"

namespace {

using iam_test::Limit;
using Operation = std::function<void()>;

// No line of a test tells of those that were left out before it, when nobody read what the process writes.
void StartCountingAnew()
{
    testing::internal::CaptureStderr();
    DlogInner(54, 3, "tells of them");
    testing::internal::GetCapturedStderr();
}

// What the operation sends to standard error, which is a file meanwhile.
std::string ErrorOutputOf(const Operation& operation)
{
    StartCountingAnew();
    testing::internal::CaptureStderr();
    operation();
    return testing::internal::GetCapturedStderr();
}

// Names this thread; what then stands at the start of its lines.
std::string OriginAs(const std::string& threadName)
{
    pthread_setname_np(pthread_self(), threadName.c_str());
    return std::string(program_invocation_short_name) + "[" + std::to_string(getpid()) + "/" + threadName + "] ";
}

// Runs the operation in a fresh process, because libslog reads the environment when it is loaded.
void ExpectErrorOutput(const char* name, const char* value, const Operation& operation, const std::string& expected)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    value == nullptr ? unsetenv(name) : setenv(name, value, 1);
    EXPECT_EXIT((operation(), _exit(0)), testing::ExitedWithCode(0), expected) << (value == nullptr ? "" : value);
    unsetenv(name);
}

// Two connected ends.
struct Ends {
    int reading = -1;
    int writing = -1;

    Ends() = default;
    Ends(const Ends&) = delete;
    ~Ends()
    {
        close(reading);
        close(writing);
    }
};

struct Pipe : Ends {
    Pipe()
    {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        reading = ends[0];
        writing = ends[1];
    }
};

struct Socket : Ends {
    Socket()
    {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        reading = ends[0];
        writing = ends[1];
    }
};

struct Terminal : Ends {
    Terminal()
    {
        reading = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_EQ(grantpt(reading), 0);
        EXPECT_EQ(unlockpt(reading), 0);
        writing = open(ptsname(reading), O_RDWR | O_NOCTTY | O_CLOEXEC);
    }
};

// In the place of standard error as long as it lives: lines come out at its other end.
template <typename Ends>
struct Road {
    Road()
    {
        StartCountingAnew();
        fcntl(ends.reading, F_SETFL, O_NONBLOCK);
        dup2(ends.writing, STDERR_FILENO);
    }
    ~Road()
    {
        dup2(before, STDERR_FILENO);
        close(before);
    }

    Ends ends;
    const int before = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
};

// Says what has become of SIGPIPE, which waits meanwhile or does not.
template <typename Ends>
void LogIntoNothing(bool waiting)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    pthread_kill(pthread_self(), waiting ? SIGPIPE : 0);
    {
        Road<Ends> road;
        close(std::exchange(road.ends.reading, -1));
        DlogInner(54, 3, "into nothing");
    }
    DlogInner(54, 3, "into a whole one");
    pthread_sigmask(SIG_BLOCK, nullptr, &signals);
    std::cerr << sigismember(&signals, SIGPIPE);
    sigpending(&signals);
    std::cerr << sigismember(&signals, SIGPIPE);
}

// Neither a SIGPIPE that waits is taken away by that of a line, nor one left behind.
TEST(SlogHost, TakesAwayNoSigpipeLeavesNoneBehindAndStaysSilentAfterABrokenPipe)
{
    for (const bool waiting : {false, true}) {
        const std::string state = waiting ? "^11$" : "^10$";
        const auto logIntoPipe = [&] { LogIntoNothing<Pipe>(waiting); };
        const auto logIntoSocket = [&] { LogIntoNothing<Socket>(waiting); };
        ExpectErrorOutput("SLOG_LEVELS", nullptr, logIntoPipe, state);
        ExpectErrorOutput("SLOG_LEVELS", nullptr, logIntoSocket, state);
    }
}

TEST(SlogHost, MakesOneLineOfWhateverAMessageHolds)
{
    const std::string origin = OriginAs("another one") + "level=3 module=54: ";
    const std::string full(1024 - origin.size() - std::string("...[cut]\n").size(), 'x');
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},     {"\xc3\xbc\n\n", "\xc3\xbc"},    {"a\nb\tc\r\x1b\x7f", "a?b?c???"},
        {full, full}, {full + "x", full + "...[cut]"}, {full + full, full + "...[cut]"}};
    for (const auto& [message, line] : cases) {
        EXPECT_EQ(ErrorOutputOf([text = message.c_str()] { DlogInner(54, 3, "%s", text); }), origin + line + "\n");
    }
}

TEST(SlogHost, LetsThroughTheLevelsThatTheEnvironmentNames)
{
    const auto print = [] {
        for (int level = -70; level < 140; ++level) {
            std::cerr << (CheckLogLevel(54, level) == 1 ? std::to_string(level) + ";" : "");
        }
    };
    ExpectErrorOutput("SLOG_LEVELS", nullptr, print, "^3;$");
    ExpectErrorOutput("SLOG_LEVELS", "", print, "^$");
    ExpectErrorOutput("SLOG_LEVELS", "2,3,16", print, "^2;3;16;$");
    ExpectErrorOutput("SLOG_LEVELS", "0,63,007", print, "^0;7;63;$");
    for (const std::string bad :
         {"64", "2,,3", "2,", ",2", "2, 3", "2;16", "2:3", "-1", "18446744073709551618", "all"}) {
        ExpectErrorOutput("SLOG_LEVELS", bad.c_str(), print, "^[^\n]*SLOG_LEVELS='" + bad + "' is not [^\n]*\n3;$");
    }
}

TEST(SlogHost, IsQuietOnRequestUnlessTheEnvironmentAsksForLines)
{
    const auto log = [] {
        SlogHostQuiet(nullptr);
        std::cerr << CheckLogLevel(54, 2) << CheckLogLevel(54, 3);
        DlogEventInner(0x1000036, "an event");
    };
    ExpectErrorOutput("SLOG_LEVELS", nullptr, log, "^00$");
    ExpectErrorOutput("SLOG_LEVELS", "2", log, "^10[^\n]*an event\n$");
    ExpectErrorOutput("SLOG_EVENT_FILE", "", log, "^00$");
    ExpectErrorOutput("SLOG_EVENT_FILE", "/dev/null", log, "^01$");
}

// A path of this test's own, which the process started by it finds too.
std::string EventPath()
{
    const std::string test = testing::UnitTest::GetInstance()->current_test_info()->name();
    return testing::TempDir() + test + std::to_string(getpgrp());
}

TEST(SlogHost, AppendsEventLinesOfAllThreadsToTheEventFile)
{
    std::ofstream(EventPath()) << "kept\n";
    const auto logFromTwoThreads = [] {
        const auto log = [] {
            for (int i = 0; i < 200; ++i) {
                DlogEventInner(0x1000036, "one of many");
            }
        };
        std::thread other(log);
        log();
        other.join();
        DlogFlush();
    };
    ExpectErrorOutput("SLOG_EVENT_FILE", EventPath().c_str(), logFromTwoThreads, "^$");
    std::ifstream file(EventPath());
    std::map<std::string, int> lines;
    for (std::string line; std::getline(file, line);) {
        ++lines[line];
    }
    EXPECT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines["kept"], 1);
    EXPECT_EQ(lines.rbegin()->second, 400);
    unlink(EventPath().c_str());

    const auto logOne = [] { DlogEventInner(0x1000036, "kept in sight"); };
    ExpectErrorOutput("SLOG_EVENT_FILE", "/proc/no/such/directory", logOne,
                      "^[^\n]*SLOG_EVENT_FILE='/proc/no/such/directory' cannot be opened: No such file[^\n]*\n"
                      "[^\n]*kept in sight\n$");
}

// The process starts without a standard input, and its number must stay free.
TEST(SlogHost, NeedsNoReaderForAFifoOfEventLines)
{
    const bool hadNoInput = fcntl(STDIN_FILENO, F_GETFD) < 0;
    const auto logWithoutAReader = [&] {
        for (int i = 0; i < 100; ++i) {
            DlogEventInner(0x1000036, "%01000d", i);
        }
        char buffer[0x20000];
        const int reader = open(EventPath().c_str(), O_RDONLY | O_NONBLOCK);
        EXPECT_GT(read(reader, buffer, sizeof(buffer)), 60000);
        DlogEventInner(0x1000036, "kept");
        std::cerr << hadNoInput << std::string(buffer, std::max<ssize_t>(read(reader, buffer, sizeof(buffer)), 0));
    };
    mkfifo(EventPath().c_str(), 0600);
    const int input = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    ExpectErrorOutput("SLOG_EVENT_FILE", EventPath().c_str(), logWithoutAReader,
                      "^1[^\n]*kept \\([0-9]+ lines left out before\\)\n$");
    dup2(input, STDIN_FILENO);
    close(input);
    unlink(EventPath().c_str());
}

// Logs to standard error, which takes no more, and then lets it go on: no line waits, and every gap in what comes out
// of the road is stated.
void ExpectNoWaitAndEveryGapStated(int out, const Operation& letGo)
{
    const int flags = fcntl(STDERR_FILENO, F_GETFL);
    int next = 0;
    while (next < 400) {
        DlogInner(54, 3, "%0700d", next++);
    }
    letGo();
    std::string text;
    while (next < 2000 && text.find("left out") == std::string::npos) {
        DlogInner(54, 3, "%0700d", next++);
        pollfd something{out, POLLIN, 0};
        poll(&something, 1, 10);
        char buffer[8192];
        for (ssize_t size; (size = read(out, buffer, sizeof(buffer))) > 0;) {
            text.append(buffer, size);
        }
    }
    EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL), flags);
    int expected = 0;
    int leftOut = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line); ++expected) {
        int number = -1;
        std::sscanf(line.c_str(), "%*[^:]: %d (%d lines left out before)", &number, &leftOut);
        expected += leftOut;
        EXPECT_EQ(number, expected);
    }
    EXPECT_GT(leftOut, 0);
}

TEST(SlogHost, NeverWaitsAndCountsTheLinesThatItLeavesOut)
{
    ExpectNoWaitAndEveryGapStated(Road<Socket>().ends.reading, [] {});
    ExpectNoWaitAndEveryGapStated(Road<Pipe>().ends.reading, [] {});
    // A terminal, with and without a descriptor left to open it once more.
    for (const rlim_t descriptors : {256, STDERR_FILENO + 1}) {
        const Road<Terminal> terminal;
        tcflow(STDERR_FILENO, TCOOFF);  // as Ctrl-S does
        const Limit few(RLIMIT_NOFILE, descriptors);
        ExpectNoWaitAndEveryGapStated(terminal.ends.reading, [] { tcflow(STDERR_FILENO, TCOON); });
    }
    EXPECT_LT(fcntl(200, F_GETFD), 0) << "descriptors were left open";
}

TEST(SlogHost, BeginsANewLineAfterOneThatHasFoundNoRoomForItsEnd)
{
    std::signal(SIGXFSZ, SIG_IGN);
    const std::string origin = OriginAs("full file") + "level=3 module=54: ";
    const auto log = [] {
        {
            const Limit full(RLIMIT_FSIZE, 100);
            DlogInner(54, 3, "%0200d", 0);
            errno = 4242;
            DlogInner(54, 3, "lost");
            EXPECT_EQ(errno, 4242);
        }
        DlogInner(54, 3, "whole");
    };
    EXPECT_EQ(ErrorOutputOf(log),
              (origin + std::string(200, '0')).substr(0, 100) + "\n" + origin + "whole (2 lines left out before)\n");
}

TEST(SlogHost, WritesTwentyBoundedLinesAtOnceThenOneASecondAndCountsTheRest)
{
    host_platform::slog::LineBudget budget;
    const std::pair<timespec, int> linesAt[] = {
        {{1000, 0}, 20}, {{1000, 999999999}, 0}, {{1001, 0}, 1}, {{1003, 0}, 2}, {{5000, 0}, 20}};
    for (const auto& [time, lines] : linesAt) {
        int taken = 0;
        for (int i = 0; i < 30; ++i) {
            taken += budget.Take(time) ? 1 : 0;
        }
        EXPECT_EQ(taken, lines) << time.tv_sec;
    }
    const auto log = [] {
        for (int i = 0; i < 30; ++i) {
            SlogHostBounded(54, 3, "bounded");
        }
        DlogInner(54, 3, "unbounded");
        DlogInner(54, 3, "the next");
    };
    ExpectErrorOutput(
        "SLOG_LEVELS", nullptr, log,
        "^([^\n]*level=3 module=54: bounded\n){20}.*unbounded \\([0-9]+ lines left out before\\)\n[^\n]*the next\n$");
}

}  // namespace

// The program: reads the command line, runs the tests, and says which promises the platform keeps. A test that hangs or
// crashes ends it, with the promise that was looked at.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <sstream>

#include "Platform.h"
#include "tests/platform/Support.h"

namespace platform_test {
namespace {

constexpr char USAGE[] =
    "Usage: report-event-platform-test [OPTION]...\n"
    "Looks at the promises of platform/include and says which of them this platform keeps.\n"
    "  --resource=NAME     the resource to serve and to open; it must be free\n"
    "  --log=stderr|FILE   where the lines of slog arrive; without it, only what needs no look at them is tested\n"
    "  --patience=SECONDS  how long to wait for what should happen at once (30)\n"
    "  --start-with=WORDS  put before this program when it starts itself: an emulator\n"
    "  --everything        what could not be looked at is a failure\n"
    "and those of GoogleTest (--gtest_help), such as --gtest_filter.\n"
    "Exit code: 0 all kept, 1 a promise is broken, 2 the command line makes no sense, 3 the platform is incomplete.\n";

bool everything = false;

void NameThePromiseAndEnd(int signal)
{
    const auto say = [](const char* text) { return write(STDOUT_FILENO, text, std::strlen(text)); };
    say("BROKEN    ");
    say(promised.c_str());
    say(signal == SIGALRM ? " (something never returned)\n" : " (the process crashed)\n");
    say("Verdict: broken; what follows was not looked at (--gtest_filter=-NAME leaves a test out).\n");
    _exit(1);
}

std::string TextOf(const testing::TestInfo& test)
{
    return test.result()->test_property_count() > 0 ? test.result()->GetTestProperty(0).value()
                                                    : std::string(test.test_suite_name()) + "." + test.name();
}

void Tell(const testing::TestInfo& test)
{
    if (test.result()->Failed()) {
        std::printf("BROKEN    %s\n", TextOf(test).c_str());
    } else if (test.result()->Skipped()) {
        std::printf("NOT SEEN  %s (%s)\n", TextOf(test).c_str(), test.result()->GetTestPartResult(0).message());
    }
}

class Verdict : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo& test) override
    {
        promised = TextOf(test);
        alarm(static_cast<unsigned>(4 * options.patience.count()));
    }
    void OnTestEnd(const testing::TestInfo& /*test*/) override
    {
        alarm(0);
    }
    void OnTestProgramEnd(const testing::UnitTest& all) override
    {
        for (int suite = 0; suite < all.total_test_suite_count(); ++suite) {
            for (int test = 0; test < all.GetTestSuite(suite)->total_test_count(); ++test) {
                Tell(*all.GetTestSuite(suite)->GetTestInfo(test));
            }
        }
        std::printf("Verdict: %d promises kept, %d broken, %d not looked at.\n", all.successful_test_count(),
                    all.failed_test_count(), all.skipped_test_count());
    }
};

bool Understand(const std::string& argument)
{
    const size_t nameEnd = std::min(argument.find('='), argument.size());
    const std::string name = argument.substr(0, nameEnd);
    const std::string value = argument.substr(std::min(nameEnd + 1, argument.size()));
    if (name == "--resource") {
        options.resource = value;
    } else if (name == "--log") {
        options.log = value;
    } else if (name == "--patience") {
        options.patience = std::chrono::seconds(std::atoi(value.c_str()));
    } else if (name == "--start-with") {
        std::istringstream words(value);
        options.starter.assign(std::istream_iterator<std::string>(words), {});
    } else if (argument == "--everything") {
        everything = true;
    } else {
        return false;
    }
    return options.patience.count() > 0;
}

// Names what is missing. A process may lack the fault-reporting library: its tests say so.
bool IsComplete()
{
    bool complete = true;
    for (const auto& [name, address] : OPERATIONS) {
        if (address == nullptr && std::strstr(name, "FTE") == nullptr) {
            std::fprintf(stderr, "report-event-platform-test: no library of this process has %s\n", name);
            complete = false;
        }
    }
    return complete;
}

int Run(int argc, char** argv)
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // whatever ends the process, what was said is out
    testing::InitGoogleTest(&argc, argv);
    options.resource = "dp:/res/platform/" + std::to_string(getpid());
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--help") {
            std::fputs(USAGE, stdout);
            return 0;
        }
        if (!Understand(argv[i])) {
            std::fprintf(stderr, "report-event-platform-test: '%s' makes no sense; --help says what does\n", argv[i]);
            return 2;
        }
    }
    if (!IsComplete()) {
        return 3;
    }
    options.forRoles = {"--resource=" + options.resource, "--log=" + options.log,
                        "--patience=" + std::to_string(options.patience.count())};
    if (std::string(testing::GTEST_FLAG(filter)).rfind("Role.", 0) != 0) {
        testing::UnitTest::GetInstance()->listeners().Append(new Verdict);
        for (const int signal : {SIGALRM, SIGSEGV, SIGBUS, SIGABRT}) {
            std::signal(signal, NameThePromiseAndEnd);
        }
    }
    const int failed = RUN_ALL_TESTS();
    return failed != 0 || (everything && testing::UnitTest::GetInstance()->skipped_test_count() > 0) ? 1 : 0;
}

}  // namespace
}  // namespace platform_test

int main(int argc, char** argv)
{
    return platform_test::Run(argc, argv);
}

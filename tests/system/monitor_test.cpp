// What report-event-monitor does beyond the plain road: when it ends, and what it says on the way.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "tests/system/Ends.h"
#include "tests/system/Programs.h"

namespace system_test {
namespace {

using Monitor = ProgramsTest;

TEST_F(Monitor, EndsOnceNothingCanArriveAnyMoreAndNoSooner)
{
    const auto other = ServeNumbered("x:/res/other", 0, 1);
    const auto security = ServeNumbered(SECURITY, 0, 1);
    const auto pm = ServeNumbered(PM, 0, 1);
    // A loss is no event to count.
    const auto both = StartMonitor("--fault dp:/res/pm/fm --fault x:/res/other --count 4", 2);
    Events(*both, 2);
    const auto families = StartMonitor("--fault dp:/res/pm/fm --security", 2);
    const auto alone = StartMonitor("--count 1");
    pm->Stop(SIGKILL);
    ExpectEnd(*alone, 1);
    ExpectHolds(Events(*alone, 1)[0], "pm-lost");
    EXPECT_TRUE(alone->WaitForError("lost dp:/res/pm/fm")) << alone->Transcript();
    EXPECT_TRUE(alone->WaitForError("report-event-monitor: nothing can arrive any more")) << alone->Transcript();

    EXPECT_TRUE(both->WaitForError("lost dp:/res/pm/fm")) << both->Transcript();
    ExpectHolds(Events(*both, 3)[2], "pm-lost");
    ExpectStop(*both, SIGTERM);
    ExpectStop(*families, SIGTERM);
}

TEST_F(Monitor, EndsWhenNoEventHasComeForAWhile)
{
    const auto waiting = Start(MONITOR, "--fault x:/res/nobody --follow --timeout 2");
    ExpectEnd(*waiting, 1);
    EXPECT_TRUE(waiting->WaitForError("report-event-monitor: no event for 2 s")) << waiting->Transcript();

    // Together longer than the time, but with no pause that is.
    const auto busy = Serve(PM, "--kind device --interval 450 --count 6");
    const auto receiving = StartMonitor("--timeout 2");
    ExpectEnd(*receiving, 1);
    EXPECT_EQ(receiving->Output().size(), 6U);
}

TEST_F(Monitor, TellsChangesOfStateAndTheLibraryItsOwnOnlyOnRequest)
{
    unsetenv("SLOG_LEVELS");
    const auto pm = Serve(PM, "--from -", "000041\n" + NumberedRecords(ReportEvent::FAULT_EVENT, 0, 1));
    const auto quiet = Start(MONITOR, "--json");
    Events(*quiet, 1);
    pm->Stop(SIGKILL);
    ExpectEnd(*quiet, 1);
    // Records arrive while the monitor is registering: the order of the first two is open.
    Words errors = quiet->Errors();
    std::sort(errors.begin(), errors.end());
    const Words expected = {"dp:/res/pm/fm: a record that cannot be decoded", "lost dp:/res/pm/fm",
                            "receiving dp:/res/pm/fm", "report-event-monitor: nothing can arrive any more"};
    EXPECT_EQ(errors, expected);
    EXPECT_EQ(pm->Errors(), Words());

    const auto talkative = Serve(PM, "--verbose --from -", "000041\n");
    EXPECT_TRUE(talkative->WaitForError("IAMRegisterRTService success")) << talkative->Transcript();
    const auto verbose = Start(MONITOR, "--verbose");
    EXPECT_TRUE(verbose->WaitForError("level=3 module=54: ")) << verbose->Transcript();
    EXPECT_TRUE(verbose->WaitForError("FTEDeSerialize err ret=")) << verbose->Transcript();
}

TEST_F(Monitor, OnlyWhatPassesTheFilterIsPrintedCountedAndSummedUp)
{
    const auto pm = ServeNumbered(PM, 0, 3);
    const auto security = ServeNumbered(SECURITY, 7, 50);
    const auto monitor = StartMonitor("--security --fault dp:/res/pm/fm --kind security --count 2 --stats", 2);
    ExpectNumbered(*monitor, 0, 7, 2);
    ExpectEnd(*monitor);
    EXPECT_EQ(monitor->Output().size(), 2U);
    EXPECT_TRUE(monitor->WaitForError("2 events in ")) << monitor->Transcript();
    EXPECT_TRUE(monitor->WaitForError("  2 security from dp:/res/iam/sec_event")) << monitor->Transcript();
    EXPECT_FALSE(monitor->WaitForError("device from")) << monitor->Transcript();

    // On a terminal it is Ctrl-C that asks for the summary, and nothing else.
    for (const int signal : {SIGINT, SIGTERM}) {
        const Terminal terminal;
        const auto watching = Start(MONITOR, "--fault x:/res/nobody --follow", "", {terminal.writing, -1});
        EXPECT_TRUE(watching->WaitForError("waiting for x:/res/nobody")) << watching->Transcript();
        ExpectStop(*watching, signal);
        EXPECT_EQ(watching->WaitForError("0 events in "), signal == SIGINT) << watching->Transcript();
    }
}

TEST_F(Monitor, TouchesNoRunningStreamForAResourceThatNobodyServes)
{
    constexpr size_t COUNT = 1500;
    const auto monitor = Start(MONITOR, "--json --follow --fault x:/res/there --fault x:/res/absent");
    EXPECT_TRUE(monitor->WaitForError("waiting for x:/res/absent: nobody serves it in ")) << monitor->Transcript();
    const auto there = Serve("x:/res/there", "--quiet --kind device --interval 1 --count " + std::to_string(COUNT));
    ExpectNumbered(*monitor, 0, 1, COUNT);

    const auto absent = ServeNumbered("x:/res/absent", 7, 1);
    ExpectNumbered(*monitor, COUNT, 7, 1);
    ExpectHolds(monitor->Output().back(), R"("resource":"x:/res/absent")");
    EXPECT_TRUE(monitor->WaitForError("receiving x:/res/absent, x:/res/there")) << monitor->Transcript();
    ExpectStop(*monitor, SIGTERM);
}

// On a process manager's file and on another one: nothing is reported or reopened, and the stream stays where it is.
TEST_F(Monitor, SaysWhoseStreamItTakesAndDoesNotTakeBackWhatIsTakenFromIt)
{
    constexpr int COUNT = 3000;  // more than the pool holds
    const struct {
        std::string resource, kind, option;
    } files[] = {{PM, "device", "--fault dp:/res/pm/fm"}, {SECURITY, "security", "--security"}};
    for (const auto& [resource, kind, option] : files) {
        const auto publisher = Serve(resource, "--quiet --kind " + kind + " --count " + std::to_string(COUNT));
        const auto older = Start(MONITOR, "--json --follow " + option);
        Events(*older, 1);
        older->Pause();
        EXPECT_TRUE(publisher->WaitForError("0xF10209")) << publisher->Transcript();

        const auto newer = Start(MONITOR, "--json " + option);
        const std::string taking = "taking the stream of " + resource + " from process " + std::to_string(older->Id());
        EXPECT_TRUE(newer->WaitForError(taking)) << newer->Transcript();
        const std::string last = "Num\":" + std::to_string(COUNT) + ",\"not";
        ASSERT_TRUE(newer->WaitForOutput(last)) << newer->Transcript();
        const size_t arrived = newer->Output().size();
        ExpectNumbered(*newer, 0, COUNT + 1 - static_cast<int>(arrived), arrived);

        older->Signal(SIGCONT);
        const std::string taken = "another reader has taken " + resource + " (process " + std::to_string(newer->Id());
        EXPECT_TRUE(older->WaitForError(taken + "); it is not taken back")) << older->Transcript();
        ExpectEnd(*older, 1);
        EXPECT_FALSE(older->WaitForError("another reader has taken", 2)) << older->Transcript();
        for (const char* const unwanted : {"FTEReport", "Reconnect"}) {
            EXPECT_EQ(older->Transcript().find(unwanted), std::string::npos) << older->Transcript();
        }
        ExpectStop(*newer, SIGTERM);
        ExpectStop(*publisher, SIGTERM);
        EXPECT_FALSE(publisher->WaitForError("0xF10209", 2)) << publisher->Transcript();
    }
}

TEST_F(Monitor, ObservesWithoutTakingAnythingAndSaysWhatItLost)
{
    constexpr size_t COUNT = 50000;
    const auto publisher = Serve(PM, "--quiet --kind device --count " + std::to_string(COUNT));
    const auto observer = Start(MONITOR, "--json --observe");
    EXPECT_TRUE(observer->WaitForError("observing dp:/res/pm/fm")) << observer->Transcript();
    observer->Pause();
    const auto client = Start(MONITOR, "--json --count " + std::to_string(COUNT));
    ExpectEnd(*client);
    EXPECT_EQ(client->Transcript().find("taking"), std::string::npos);
    ExpectNumbered(*client, 0, 1, COUNT);

    observer->Signal(SIGCONT);
    EXPECT_TRUE(observer->WaitForError("dp:/res/pm/fm: too slow for ")) << observer->Transcript();
    ExpectStop(*observer, SIGTERM);
    EXPECT_GT(observer->Output().size(), 0U);
    const size_t arrived = observer->Output().size();
    EXPECT_TRUE(observer->WaitForError(" " + std::to_string(COUNT - arrived) + " records, which are lost"));
    EXPECT_EQ(publisher->Errors(), Words());
}

TEST_F(Monitor, ListsWhoServesWhatAndWhoReadsIt)
{
    const auto nobody = Start(MONITOR, "--list");
    ExpectEnd(*nobody);
    EXPECT_EQ(nobody->Output(), Words());
    const std::string directory = getenv("IAM_RUNTIME_DIR");
    EXPECT_TRUE(nobody->WaitForError("no resource is served in " + directory)) << nobody->Transcript();

    const auto pm = Serve(PM, "--count 0");
    const auto other = Serve("x:/res/other", "--count 0");
    const auto older = StartMonitor("");
    const auto newer = StartMonitor("");
    const auto observer = Start(MONITOR, "--observe");
    EXPECT_TRUE(observer->WaitForError("observing ")) << observer->Transcript();
    EXPECT_EQ(observer->Transcript().find("taking "), std::string::npos) << observer->Transcript();
    const auto id = [](const Running& process) { return std::to_string(process->Id()); };
    const auto json = Start(MONITOR, "--list --json");
    ExpectEnd(*json);
    const Words expected = {
        R"({"resource":"dp:/res/pm/fm","pid":)" + id(pm) + R"(,"answers":true,"readers":[{"pid":)" + id(older) +
            R"(,"current":false},{"pid":)" + id(newer) + R"(,"current":true}],"observers":[{"pid":)" + id(observer) +
            "}]}",
        R"({"resource":"x:/res/other","pid":)" + id(other) + R"(,"answers":true,"readers":[],"observers":[]})"};
    EXPECT_EQ(json->Output(), expected);

    other->Pause();
    const auto rows = Start(MONITOR, "--list");
    ExpectEnd(*rows);
    const auto row = [&id](const Running& process) { return id(process) + "("; };
    EXPECT_TRUE(rows->WaitForOutput("dp:/res/pm/fm          " + row(pm))) << rows->Transcript();
    EXPECT_TRUE(rows->WaitForOutput(")*")) << rows->Transcript();
    EXPECT_TRUE(rows->WaitForOutput(" " + row(observer))) << rows->Transcript();
    EXPECT_TRUE(rows->WaitForOutput("(does not answer)")) << rows->Transcript();
    const auto refused = Start(MONITOR, "--fault x:/res/other");
    ExpectEnd(*refused, 1);
    const std::string cause = "x:/res/other: process " + id(other) + " serves it and does not answer";
    EXPECT_TRUE(refused->WaitForError(cause)) << refused->Transcript();
    other->Signal(SIGCONT);

    std::filesystem::permissions(directory, std::filesystem::perms::all);
    const auto open = Start(MONITOR, "--list");
    ExpectEnd(*open, 1);
    EXPECT_TRUE(open->WaitForError("report-event-monitor: " + directory + ": Permission denied"));
}

}  // namespace
}  // namespace system_test

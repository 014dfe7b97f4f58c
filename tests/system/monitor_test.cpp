// What report-event-monitor does beyond the plain road: when it ends, and what it says on the way.
#include <gtest/gtest.h>

#include "tests/system/Ends.h"
#include "tests/system/Programs.h"

namespace system_test {
namespace {

using Monitor = ProgramsTest;

TEST_F(Monitor, EndsOnceNothingCanArriveAnyMoreAndNoSooner)
{
    const auto other = ServeNumbered("x:/res/other", 0, 1);
    const auto pm = ServeNumbered(PM, 0, 1);
    // A loss is no event to count.
    const auto both = StartMonitor("--fault dp:/res/pm/fm --fault x:/res/other --count 4", 2);
    Events(*both, 2);
    const auto alone = StartMonitor("--count 2");
    pm->Stop(SIGKILL);
    ExpectEnd(*alone, 1);
    ExpectHolds(Events(*alone, 1)[0], "pm-lost");
    EXPECT_TRUE(alone->WaitForError("lost dp:/res/pm/fm")) << alone->Transcript();
    EXPECT_TRUE(alone->WaitForError("report-event-monitor: nothing can arrive any more")) << alone->Transcript();

    EXPECT_TRUE(both->WaitForError("lost dp:/res/pm/fm")) << both->Transcript();
    ExpectHolds(Events(*both, 3)[2], "pm-lost");
    ExpectStop(*both, SIGTERM);
}

TEST_F(Monitor, EndsWhenNoEventHasComeForAWhile)
{
    const auto idle = Serve("x:/res/idle", "--count 0");
    const auto waiting = Start(MONITOR, "--fault x:/res/idle --timeout 1");
    ExpectEnd(*waiting, 1);
    EXPECT_TRUE(waiting->WaitForError("report-event-monitor: no event for 1 s")) << waiting->Transcript();

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
    const Words expected = {"receiving dp:/res/pm/fm", "dp:/res/pm/fm: a record that cannot be decoded",
                            "lost dp:/res/pm/fm", "report-event-monitor: nothing can arrive any more"};
    EXPECT_EQ(quiet->Errors(), expected);
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
    const auto security = ServeNumbered(SECURITY, 7, 2);
    const auto monitor = StartMonitor("--security --fault dp:/res/pm/fm --kind security --count 2 --stats", 2);
    ExpectNumbered(*monitor, 0, 7, 2);
    ExpectEnd(*monitor);
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

}  // namespace
}  // namespace system_test

// Starting and stopping a family: names, files, threads, and what stays behind.
#include <set>
#include <system_error>

#include "report_event/ResourceNames.h"
#include "tests/fakes/RecordingPlatform.h"

namespace recording {

const std::string THREE = "c:/res/three";
const std::string NEXT = " | ";

static std::string Stopped(const std::string& name)
{
    return Joined(name, "StopSubscribeEvent");
}

// The end of a join that met `before`.
static std::string JoinedAfter(const std::string& before, const std::string& joined)
{
    return "join" + before + joined.substr(4);
}

class Subscription : public LibraryTest {
protected:
    // Loses the connection of `name`, whose thread then waits in the first pause of its reconnection.
    void HoldInPause(const std::string& name, Gate& gate)
    {
        SetAbsent(name, true);
        Next("sleep", [&] { gate.Hold(); });
        Fail(name, EPIPE);
        gate.AwaitArrival();
    }

    void HoldInCallback(const std::string& name, Gate& gate)
    {
        Of(deviceCallback) = [&, tell = Teller("device")](const dsmi_event& event) {
            event.eventName == std::string("held") ? gate.Hold() : void();
            tell(event);
        };
        Deliver(name, Raw(0x01, "held"));
        gate.AwaitArrival();
    }

    // Runs `stop` on a thread of its own, and `release` once it waits in a join (or has ended without one).
    void StopMeanwhile(const Hook& stop, const Hook& release)
    {
        std::atomic<bool> done{false};
        Next("join", [&] { done = true; });
        Background stopper([&] { stop(), done = true; });
        AwaitCondition("a join", [&] { return done.load(); });
        release();
        stopper.Join();
    }

    // The three ways in which a thread of the security family is ended.
    std::vector<Hook> WaysToStop()
    {
        return {[&] { server_->StopSubscribeEvent({SEC}, SECURITY_EVENT); },
                [&] {
                    server_->StopSubscribeEvent({}, SECURITY_EVENT);
                    server_->StartSubscribeEvent({}, SECURITY_EVENT);
                },
                [&] { server_ = std::make_unique<Server>(); }};
    }

    void StartAfresh()
    {
        SetAbsent(SEC, false);
        server_->StopSubscribeEvent({}, SECURITY_EVENT);
        server_->StartSubscribeEvent({SEC}, SECURITY_EVENT);
        Journal();
    }
};

TEST_F(Subscription, AStartOpensWhatTheNamesAllowInOrderAndReportsTheRest)
{
    const std::string dot = "log 3 Illegal fileName, find '.', cannot open file=";
    const std::string noColon = "log 3 Illegal fileName, cannot find ':', cannot open file=";
    const std::string prefix = "log 3 CheckFileNameIsValid failed prefix=/res/, fileName=";
    const std::string twice = "log 3 resFile=" + PM + " is repeated, please check your input groupOwnerList | ";
    const std::string absent = "open(x:/res/no, 2) = -1 | log 3 Open file failed. resFile=x:/res/no fd=-1";
    const auto started = [](const std::string& name, int fd) { return Opened(name, fd) + " | thread"; };
    const auto check = [&](ReportEvent::EventType family, const Names& list, int result, const std::string& expected) {
        SCOPED_TRACE(testing::PrintToString(list));
        EXPECT_EQ(result, server_->StartSubscribeEvent(list, family));
        EXPECT_EQ(family == FAULT_EVENT, Of(faultRunning));
        EXPECT_EQ(family == SECURITY_EVENT, Of(securityRunning));
        EXPECT_EQ(0, server_->StartSubscribeEvent({"bad", TWO}, family)) << "running: nothing is looked at";
        EXPECT_EQ(expected, Journal("open log thread close join"));
        server_->StopSubscribeEvent(list, family);
        EXPECT_TRUE(Of(faults).empty() && Of(securities).empty());
        Journal();
    };
    SetAbsent("x:/res/no");
    check(FAULT_EVENT, {SEA, PM}, 0, started(PM, 1000) + NEXT + started(SEA, 1001));
    check(FAULT_EVENT, {PM, PM, PM}, BAD_NAME, twice + twice + started(PM, 1000));
    check(FAULT_EVENT, {"dp:/res/pm/fm.1", ".", "dp/res/pm/fm", "", "dp:res/pm/fm", "a:b:/res/x", "dp:/res", "x:/resx"},
          BAD_NAME,
          dot + "dp:/res/pm/fm.1 | " + dot + ". | " + noColon + "dp/res/pm/fm | " + noColon + NEXT + prefix +
              "dp:res/pm/fm | " + prefix + "a:b:/res/x | " + prefix + "dp:/res | " + prefix + "x:/resx");
    const std::string cutOff = PM + '\0' + "x";
    check(FAULT_EVENT, {cutOff, PM}, BAD_NAME, prefix + PM + NEXT + started(PM, 1000));
    EXPECT_EQ(ReportEvent::NameFault::HAS_NUL, ReportEvent::CheckResourceName(cutOff));
    check(
        FAULT_EVENT, {"x:/res/no", "x:/res/:", "x:/res/", ":/res/x"}, OPEN_FAILED,
        started(":/res/x", 1000) + NEXT + started("x:/res/", 1001) + NEXT + started("x:/res/:", 1002) + NEXT + absent);
    check(FAULT_EVENT, {"bad", "x:/res/no"}, OPEN_FAILED, noColon + "bad | " + absent);
    check(FAULT_EVENT, {}, 0, "");
    check(SECURITY_EVENT, {"z.z", SEC, "x:/res/no", "z.z"}, OPEN_FAILED,
          started(SEC, 1000) + NEXT + absent + NEXT + started("z.z", 1001));
    check(SECURITY_EVENT, {SEC, SEC}, 0, started(SEC, 1000));
}

TEST_F(Subscription, AStopClearsTheFlagThenClosesThenJoinsWhatIsListed)
{
    EXPECT_EQ(0, server_->StopSubscribeEvent({ONE, "unknown"}, FAULT_EVENT));
    EXPECT_EQ("", Journal());
    server_->StartSubscribeEvent({ONE, TWO}, FAULT_EVENT);
    server_->StartSubscribeEvent({SEC}, SECURITY_EVENT);
    AwaitBlocked(ONE, TWO, SEC);
    Next("close", [&] { EXPECT_TRUE(!Of(faultRunning) && Of(securityRunning)); });
    Journal();
    EXPECT_EQ(BAD_NAME, server_->StopSubscribeEvent({TWO, "unknown", TWO, ONE}, FAULT_EVENT));
    EXPECT_EQ(BAD_NAME, server_->StopSubscribeEvent({ONE, SEC}, SECURITY_EVENT));
    const std::string unknown = " | log 3 Illegal fileName=", fault = ", cannot find resfile in faultEvtSrcMap_";
    EXPECT_EQ("close(1001) | " + Stopped(TWO) + unknown + "unknown" + fault + unknown + TWO + fault +
                  " | close(1000) | " + Stopped(ONE) + unknown + ONE +
                  ", cannot find resfile in secEvtSrcMap_ | close(1002) | " + Stopped(SEC),
              Journal("open close join log fte"));
    EXPECT_TRUE(Of(faults).empty() && Of(securities).empty());
}

TEST_F(Subscription, AThreadThatCannotBeStartedLeavesTheFilesBeforeItSubscribed)
{
    Next("thread");
    Results("thread", {EAGAIN});
    EXPECT_THROW(server_->StartSubscribeEvent({ONE, TWO, THREE}, FAULT_EVENT), std::system_error);
    EXPECT_EQ(Opened(ONE, 1000) + " | thread | " + Opened(TWO, 1001) + " | close(1001)",
              Journal("open log thread close"));
    EXPECT_EQ(1u, Of(faults).size());
    EXPECT_TRUE(Of(faultRunning));
    Deliver(ONE, Raw(0x01, "still"));
    Await("device still");
    EXPECT_EQ(BAD_NAME, server_->StopSubscribeEvent({ONE, TWO, THREE}, FAULT_EVENT));
}

TEST_F(Subscription, TheDestructorStopsBothFamiliesInKeyOrderAndFlushesLast)
{
    Gate callback, pause;
    server_->StartSubscribeEvent({SEC}, SECURITY_EVENT);
    server_->StartSubscribeEvent({TWO, ONE, PM}, FAULT_EVENT);
    AwaitBlocked(TWO, PM);
    HoldInPause(SEC, pause);
    HoldInCallback(ONE, callback);
    std::atomic<bool>&faultFlag = Of(faultRunning), &securityFlag = Of(securityRunning);
    Always("close", [&] { EXPECT_FALSE(faultFlag || securityFlag); });
    Next("log", [&] { EXPECT_TRUE(faultFlag) << "the first message"; });
    Journal();
    const auto release = [&] { callback.Open(), Await("join", 7), pause.Open(); };  // four begun, three done
    StopMeanwhile([&] { server_.reset(); }, release);
    EXPECT_EQ("log 16 ~ReportEventServerImpl... | close(1001) | " + JoinedAfter(" | device held", Joined(ONE)) +
                  " | close(1002) | " + Joined(TWO) + " | close(1003) | " + Joined(PM) + NEXT +
                  JoinedAfter(GaveUp(SEC, EPIPE), Joined(SEC)) + " | flush",
              Journal("open close join log fte deliver flush"));
}

// What a stop did not list is retired by the next start, before the family runs again, whatever its thread is doing.
TEST_F(Subscription, NoLeftoverOfAStopSurvivesTheNextStart)
{
    const auto scenario = [&](const char* state, const Names& stopped, const Names& started) {
        SCOPED_TRACE(state + testing::PrintToString(stopped) + testing::PrintToString(started));
        const bool paused = state == std::string("paused");
        const bool calling = state == std::string("calling");
        Gate gate;
        Journal();
        EXPECT_EQ(0, server_->StartSubscribeEvent({ONE, TWO}, FAULT_EVENT));
        AwaitBlocked(ONE, TWO);
        paused ? HoldInPause(ONE, gate) : calling ? HoldInCallback(ONE, gate) : void();
        EXPECT_EQ(0, server_->StopSubscribeEvent(stopped, FAULT_EVENT));
        EXPECT_EQ(stopped.size(), Count("join thead"));
        SetAbsent(ONE, false);
        Always("close", [&] { EXPECT_FALSE(Of(faultRunning)); });
        StopMeanwhile([&] { EXPECT_EQ(0, server_->StartSubscribeEvent(started, FAULT_EVENT)); }, [&] { gate.Open(); });
        Always("close", nullptr);
        AwaitThreads(static_cast<int>(started.size()));
        EXPECT_EQ(1u, Count("JoinReadThread: join thead of resfile=" + ONE));
        std::set<std::string> known(started.begin(), started.end());
        known.insert({ONE, stopped.empty() ? TWO : ONE});
        EXPECT_EQ(known.size(), Of(faults).size());
        for (const auto& [name, info] : Of(faults)) {
            const bool subscribed = std::count(started.begin(), started.end(), name) != 0;
            EXPECT_TRUE(subscribed ? info.fd >= 1000 : info.fd == -1) << name;
            EXPECT_EQ(subscribed, info.readThread.joinable()) << name;
            EXPECT_EQ(1u, known.count(name)) << name;
        }
        for (const std::string& name : started) {
            Deliver(name, Raw(0x01, "after " + name));
            Await("device after " + name);
            AwaitBlocked(name);
            EXPECT_EQ(1u, Count("device after " + name));
        }
        EXPECT_EQ(calling ? 1u : 0u, Count("device held"));
        EXPECT_EQ(2 + started.size() + (paused ? 1 : 0), Count("open("));
        EXPECT_EQ(0u, Count("MidFTEReport"));
        EXPECT_EQ(0, server_->StopSubscribeEvent(Names(known.begin(), known.end()), FAULT_EVENT));
    };
    for (const char* state : {"blocked", "paused", "calling"}) {
        for (const Names& stopped : {Names{}, Names{TWO}}) {
            for (const Names& started : {Names{ONE, TWO}, Names{THREE}, Names{}}) {
                scenario(state, stopped, started);
            }
        }
    }
}

// By the time the read thread goes into its reconnection, the stop has closed the descriptor and the process has taken
// its number for a file of its own: the number is not closed again.
TEST_F(Subscription, ANumberThatTheProcessHasTakenIsNotClosedByAReconnection)
{
    StartAfresh();
    Gate lost;
    std::atomic<bool> due{true};
    Fail(SEC, EPIPE, [&] {  // then hold the thread where it takes a lock or closes
        const auto hold = [&] { threadName == "Rd_" + SEC&& due.exchange(false) ? lost.Hold() : void(); };
        Always("lock", hold);
        Always("close", hold);
        errno = EPIPE;
    });
    lost.AwaitArrival();
    Next("closed", [&] { EXPECT_EQ(1000, TakeNumber(FOREIGN)); });
    StopMeanwhile([&] { EXPECT_EQ(0, server_->StopSubscribeEvent({SEC}, SECURITY_EVENT)); }, [&] { lost.Open(); });
    EXPECT_EQ("close(1000) | " + JoinedAfter(GaveUp(SEC, EPIPE), Stopped(SEC)), Journal("open close join log"));
}

// Whether the thread still tries to reconnect or gave up long ago, and whoever ends it.
TEST_F(Subscription, ANumberGivenUpByAReconnectionIsNotClosedByAStop)
{
    for (const bool gaveUp : {true, false}) {
        for (const Hook& stop : WaysToStop()) {
            StartAfresh();
            Gate pause;
            HoldInPause(SEC, pause);
            TakeNumber(FOREIGN);
            gaveUp ? (pause.Open(), AwaitThreads()) : void();
            StopMeanwhile(stop, [&] { pause.Open(); });
            EXPECT_EQ(1u, Count("close("));
        }
    }
}

// The reopen is under way while the stop closes and joins: its descriptor is closed after the join, whether or not its
// number is the one from before.
TEST_F(Subscription, ADescriptorReopenedDuringAStopIsClosedByIt)
{
    for (const int number : {1000, 1500}) {
        for (const Hook& stop : WaysToStop()) {
            firstNumber = 1000;
            StartAfresh();
            Gate reopening;
            Next("open", [&] { reopening.Hold(); });
            Fail(SEC, EBADMSG);
            reopening.AwaitArrival();
            firstNumber = number;
            StopMeanwhile(stop, [&] { reopening.Open(); });
            EXPECT_EQ(Text("close(1000) | open(", SEC, ", 0) = ", number, " | close(", number, ")"),
                      Journal("open close"));
        }
    }
}

// Also when a descriptor is zero.
TEST_F(Subscription, AThreadMayReconnectBeforeTheStartHasFinishedWithIt)
{
    for (const auto& [lost, found] : {std::pair(1000, 1600), std::pair(0, 0)}) {
        firstNumber = lost;
        std::vector<const void*> locks;  // for giving the old number up, storing the new one, copying the callback
        Always("lock", [&] { threadName.empty() ? void() : locks.push_back(wantedLock); });
        Fail(SEC, EBADF);
        Next("closed", [&, next = found] { firstNumber = next; });
        Next("thread started", [&, next = found] { Await(Reconnected(SEC, next)); });
        EXPECT_EQ(0, server_->StartSubscribeEvent({SEC}, SECURITY_EVENT));
        EXPECT_EQ(found, Of(securities).at(SEC).fd);
        Deliver(SEC, Raw(0x11, "soon"));
        Await("security soon");
        EXPECT_EQ(0, server_->StopSubscribeEvent({SEC}, SECURITY_EVENT));
        EXPECT_TRUE(locks.size() == 3 && locks[0] == locks[1] && locks[1] != locks[2]);
        EXPECT_EQ(Text("close(", lost, ") | close(", found, ")"), Journal("close"));
    }
}

}  // namespace recording

// Starting and stopping a family: names, files, threads, and what stays behind.
#include <system_error>

#include "tests/fakes/RecordingPlatform.h"

namespace recording {

const std::string THREE = "c:/res/three";
const std::string NEXT = " | ";

class Subscription : public LibraryTest {
protected:
    // Loses the connection of `name`, whose thread then waits in the first pause of its reconnection.
    void HoldInPause(const std::string& name, Gate& gate)
    {
        SetAbsent(name);
        Next("sleep", [&] { gate.Hold(); });
        Fail(name, EPIPE);
        gate.AwaitArrival();
    }

    void HoldInCallback(const std::string& name, Gate& gate)
    {
        server_->reportEventMidCb = [&, tell = Teller("device")](const dsmi_event& event) {
            if (event.eventName == std::string("held")) {
                gate.Hold();
            }
            tell(event);
        };
        Deliver(name, Raw(0x01, "held"));
        gate.AwaitArrival();
    }

    // Runs `stop` on a thread of its own, and `release` once it waits in a join (or has ended without one).
    void StopMeanwhile(const Hook& stop, const Hook& release)
    {
        std::atomic<bool> joinsOrEnded{false};
        Next("join", [&] { joinsOrEnded = true; });
        Background stopper([&] {
            stop();
            joinsOrEnded = true;
        });
        AwaitCondition("a join", [&] { return joinsOrEnded.load(); });
        release();
        stopper.Join();
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
    const std::string cutOff = PM + '\0' + "x";
    const auto started = [](const std::string& name, int fd) { return Opened(name, fd) + " | thread"; };
    const auto check = [&](EventType family, const Names& list, int result, const std::string& journal) {
        SCOPED_TRACE(testing::PrintToString(list));
        EXPECT_EQ(result, server_->StartSubscribeEvent(list, family));
        EXPECT_EQ(family == FAULT_EVENT, server_->faultEvtRunning_);
        EXPECT_EQ(family == SECURITY_EVENT, server_->secEvtRunning_);
        EXPECT_EQ(RESULT_OK, server_->StartSubscribeEvent({"bad", TWO}, family)) << "running: nothing is looked at";
        EXPECT_EQ(journal, Journal("open log thread close join"));
        server_->StopSubscribeEvent(list, family);
        EXPECT_TRUE(server_->faultEvtSrcMap_.empty());
        EXPECT_TRUE(server_->secEvtSrcMap_.empty());
        Journal();
    };
    SetAbsent("x:/res/no");
    check(FAULT_EVENT, {SEA, PM}, RESULT_OK, started(PM, 1000) + NEXT + started(SEA, 1001));
    check(FAULT_EVENT, {PM, PM, PM}, RESULT_BAD_NAME, twice + twice + started(PM, 1000));
    check(FAULT_EVENT, {"dp:/res/pm/fm.1", ".", "dp/res/pm/fm", "", "dp:res/pm/fm", "a:b:/res/x", "dp:/res", "x:/resx"},
          RESULT_BAD_NAME,
          dot + "dp:/res/pm/fm.1 | " + dot + ". | " + noColon + "dp/res/pm/fm | " + noColon + NEXT + prefix +
              "dp:res/pm/fm | " + prefix + "a:b:/res/x | " + prefix + "dp:/res | " + prefix + "x:/resx");
    check(FAULT_EVENT, {cutOff, PM}, RESULT_BAD_NAME, prefix + PM + NEXT + started(PM, 1000));
    EXPECT_EQ(NameFault::HAS_NUL, CheckResourceName(cutOff));
    check(
        FAULT_EVENT, {"x:/res/no", "x:/res/:", "x:/res/", ":/res/x"}, RESULT_OPEN_FAILED,
        started(":/res/x", 1000) + NEXT + started("x:/res/", 1001) + NEXT + started("x:/res/:", 1002) + NEXT + absent);
    check(FAULT_EVENT, {"bad", "x:/res/no"}, RESULT_OPEN_FAILED, noColon + "bad | " + absent);
    check(FAULT_EVENT, {}, RESULT_OK, "");
    check(SECURITY_EVENT, {"z.z", SEC, "x:/res/no", "z.z"}, RESULT_OPEN_FAILED,
          started(SEC, 1000) + NEXT + absent + NEXT + started("z.z", 1001));
}

TEST_F(Subscription, AStopClearsTheFlagThenClosesThenJoinsWhatIsListed)
{
    EXPECT_EQ(RESULT_OK, server_->StopSubscribeEvent({ONE, "unknown"}, FAULT_EVENT));
    EXPECT_EQ("", Journal());
    server_->StartSubscribeEvent({ONE, TWO}, FAULT_EVENT);
    server_->StartSubscribeEvent({SEC}, SECURITY_EVENT);
    for (const std::string& name : {ONE, TWO, SEC}) {
        AwaitBlocked(name);
    }
    Next("close", [&] {
        EXPECT_FALSE(server_->faultEvtRunning_);
        EXPECT_TRUE(server_->secEvtRunning_);
    });
    Journal();
    EXPECT_EQ(RESULT_BAD_NAME, server_->StopSubscribeEvent({TWO, "unknown", ONE}, FAULT_EVENT));
    EXPECT_EQ(RESULT_BAD_NAME, server_->StopSubscribeEvent({ONE, SEC}, SECURITY_EVENT));
    EXPECT_EQ("close(1001) | " + Joined(TWO, "StopSubscribeEvent") +
                  " | log 3 Illegal fileName=unknown, cannot find resfile in faultEvtSrcMap_ | close(1000) | " +
                  Joined(ONE, "StopSubscribeEvent") + " | log 3 Illegal fileName=" + ONE +
                  ", cannot find resfile in secEvtSrcMap_ | close(1002) | " + Joined(SEC, "StopSubscribeEvent"),
              Journal("open close join log fte"));
    EXPECT_TRUE(server_->faultEvtSrcMap_.empty());
    EXPECT_TRUE(server_->secEvtSrcMap_.empty());
}

TEST_F(Subscription, AThreadThatCannotBeStartedLeavesTheFilesBeforeItSubscribed)
{
    Next("thread");
    Results("thread", {EAGAIN});
    EXPECT_THROW(server_->StartSubscribeEvent({ONE, TWO, THREE}, FAULT_EVENT), std::system_error);
    EXPECT_EQ(Opened(ONE, 1000) + " | thread | " + Opened(TWO, 1001) + " | close(1001)",
              Journal("open log thread close"));
    EXPECT_EQ(1u, server_->faultEvtSrcMap_.size());
    EXPECT_TRUE(server_->faultEvtRunning_);
    Deliver(ONE, Raw(0x01, "still"));
    Await("device still");
    EXPECT_EQ(RESULT_BAD_NAME, server_->StopSubscribeEvent({ONE, TWO, THREE}, FAULT_EVENT));
}

TEST_F(Subscription, TheDestructorStopsBothFamiliesInKeyOrderAndFlushesLast)
{
    Gate callback;
    Gate pause;
    server_->StartSubscribeEvent({SEC}, SECURITY_EVENT);
    server_->StartSubscribeEvent({TWO, ONE}, FAULT_EVENT);
    AwaitBlocked(TWO);
    HoldInPause(SEC, pause);
    HoldInCallback(ONE, callback);
    const std::atomic<bool>& faultsRun = server_->faultEvtRunning_;
    const std::atomic<bool>& securityRuns = server_->secEvtRunning_;
    Next("log", [&] { EXPECT_TRUE(faultsRun) << "the first message"; });
    Always("close", [&] { EXPECT_FALSE(faultsRun || securityRuns); });
    Journal();
    const auto release = [&] {
        callback.Open();
        Await("join", 5);  // three begun, two done
        pause.Open();
    };
    StopMeanwhile([&] { server_.reset(); }, release);
    EXPECT_EQ("log 16 ~ReportEventServerImpl... | close(1001) | " + Joined(ONE, "JoinReadThread", " | device held") +
                  " | close(1002) | " + Joined(TWO, "JoinReadThread") + NEXT +
                  Joined(SEC, "JoinReadThread", GaveUp(SEC, EPIPE)) + " | flush",
              Journal("open close join log fte deliver flush"));
}

// What a stop did not list is retired by the next start, before the family runs again, whatever its thread is doing.
TEST_F(Subscription, NoLeftoverOfAStopSurvivesTheNextStart)
{
    enum State { BLOCKED, PAUSED, CALLING };
    const auto scenario = [&](State state, const Names& stopped, const Names& started) {
        SCOPED_TRACE(Text(state, testing::PrintToString(stopped), testing::PrintToString(started)));
        Gate gate;
        Journal();
        EXPECT_EQ(RESULT_OK, server_->StartSubscribeEvent({ONE, TWO}, FAULT_EVENT));
        AwaitBlocked(ONE);
        AwaitBlocked(TWO);
        if (state == PAUSED) {
            HoldInPause(ONE, gate);
        }
        if (state == CALLING) {
            HoldInCallback(ONE, gate);
        }
        EXPECT_EQ(RESULT_OK, server_->StopSubscribeEvent(stopped, FAULT_EVENT));
        SetAbsent(ONE, false);
        Always("close", [&] { EXPECT_FALSE(server_->faultEvtRunning_); });
        StopMeanwhile([&] { server_->StartSubscribeEvent(started, FAULT_EVENT); }, [&] { gate.Open(); });
        Always("close", nullptr);
        AwaitThreads(static_cast<int>(started.size()));
        EXPECT_EQ(1u, Count("JoinReadThread: join thead of resfile=" + ONE));

        EXPECT_EQ(1u, server_->faultEvtSrcMap_.count(ONE));
        for (const auto& [name, info] : server_->faultEvtSrcMap_) {
            const bool isSubscribed = std::count(started.begin(), started.end(), name) != 0;
            EXPECT_EQ(isSubscribed, info.fd != -1) << name;
            EXPECT_EQ(isSubscribed, info.readThread.joinable()) << name;
        }
        for (const std::string& name : started) {
            Deliver(name, Raw(0x01, "after " + name));
            Await("device after " + name);
        }
        EXPECT_EQ(state == CALLING ? 1u : 0u, Count("device held"));
        EXPECT_EQ(2 + started.size() + (state == PAUSED ? 1 : 0), Count("open("));
        server_->StopSubscribeEvent({ONE, TWO, THREE}, FAULT_EVENT);
        EXPECT_TRUE(server_->faultEvtSrcMap_.empty());
    };
    for (const State state : {BLOCKED, PAUSED, CALLING}) {
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
    std::atomic<bool> isDue{true};
    Fail(SEC, EPIPE, [&] {  // then hold the thread where it first takes a lock or closes
        const auto hold = [&] {
            if (threadName == "Rd_" + SEC && isDue.exchange(false)) {
                lost.Hold();
            }
        };
        Always("lock", hold);
        Always("close", hold);
        errno = EPIPE;
    });
    lost.AwaitArrival();
    Next("closed", [&] { EXPECT_EQ(FIRST_NUMBER, TakeNumber(FOREIGN)); });
    StopMeanwhile([&] { server_->StopSubscribeEvent({SEC}, SECURITY_EVENT); }, [&] { lost.Open(); });
    EXPECT_EQ("close(1000) | " + Joined(SEC, "StopSubscribeEvent", GaveUp(SEC, EPIPE)), Journal("open close join log"));
}

// The reopen is under way while the stop closes and joins: its descriptor is closed after the join, whether or not its
// number is the one from before.
TEST_F(Subscription, ADescriptorReopenedDuringAStopIsClosedByIt)
{
    const Hook stopIt = [&] { server_->StopSubscribeEvent({SEC}, SECURITY_EVENT); };
    const Hook startAgain = [&] {
        server_->StopSubscribeEvent({}, SECURITY_EVENT);
        server_->StartSubscribeEvent({}, SECURITY_EVENT);
    };
    const Hook destroyIt = [&] { server_ = std::make_unique<Server>(); };
    for (const int number : {FIRST_NUMBER, 1500}) {
        for (const Hook& stop : {stopIt, startAgain, destroyIt}) {
            firstNumber = FIRST_NUMBER;
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

// Also when a descriptor is zero. Giving the old number up and storing the new one take one lock, copying the callback
// another.
TEST_F(Subscription, AThreadMayReconnectBeforeTheStartHasFinishedWithIt)
{
    for (const auto& [lost, found] : {std::pair(FIRST_NUMBER, 1600), std::pair(0, 0)}) {
        const int next = found;
        firstNumber = lost;
        std::vector<const void*> locks;
        Always("lock", [&] {
            if (!threadName.empty()) {
                locks.push_back(wantedLock);
            }
        });
        Fail(SEC, EBADF);
        Next("closed", [&] { firstNumber = next; });
        Next("thread started", [&] { Await(Reconnected(SEC, next)); });
        EXPECT_EQ(RESULT_OK, server_->StartSubscribeEvent({SEC}, SECURITY_EVENT));
        EXPECT_EQ(next, server_->secEvtSrcMap_.at(SEC).fd);
        Deliver(SEC, Raw(0x11, "soon"));
        Await("security soon");
        EXPECT_EQ(RESULT_OK, server_->StopSubscribeEvent({SEC}, SECURITY_EVENT));
        ASSERT_EQ(3u, locks.size());
        EXPECT_EQ(locks[0], locks[1]);
        EXPECT_NE(locks[1], locks[2]);
        EXPECT_EQ(Text("close(", lost, ") | close(", next, ")"), Journal("close"));
    }
}

}  // namespace recording

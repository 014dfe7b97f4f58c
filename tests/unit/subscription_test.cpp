// Starting and stopping a family: names, files, threads, and what stays behind.
#include <set>
#include <system_error>

#include "tests/fakes/RecordingPlatform.h"

namespace recording {

const std::string THREE = "c:/res/three";

// The lines of the journal that make up a subscription.
static std::string Opened(const std::string& name, int fd, int flags = 2) {
    return Text("open(", name, ", ", flags, ") = ", fd);
}

static std::string Started(const std::string& name, int fd) {
    return fd < 0 ? Opened(name, fd) + " | log 3 Open file failed. resFile=" + name + " fd=-1"
                  : Text(Opened(name, fd), " | log 2 Open file success. resFile=", name, ", fd=", fd, " | thread");
}

static std::string Joined(const std::string& name, const char* by) {
    return Text("join | log 16 ", by, ": join thead of resfile=", name, " success");
}

static std::string Reconnected(const char* how, const std::string& name, int fd) {
    return Text("log 16 Reconnect ", how, ". (file=", name, ",fd=", fd, ")");
}

const char* const BY_STOP = "StopSubscribeEvent";
const char* const BY_JOIN = "JoinReadThread";
const std::string GAVE_UP =
    Reconnected("failed", SEC, -1) + " | log 3 Reconnect " + SEC + " failed, ret=-1 errno=" + Text(EPIPE);

class Subscription : public LibraryTest {
protected:
    Names Keys(ReportEvent::EventType family) {
        Names keys;
        for (const auto& entry : Get(family == FAULT_EVENT ? faults : securities)) { keys.push_back(entry.first); }
        return keys;
    }

    // Loses the connection of `name`, whose thread then waits in the first pause of its reconnection.
    void HoldInPause(const std::string& name, Gate& gate) {
        SetAbsent(name, true);
        Next("sleep", [&] { gate.Hold(); });
        Fail(name, EPIPE);
        gate.AwaitArrival();
    }

    void HoldInCallback(const std::string& name, Gate& gate) {
        Get(deviceCallback) = [&, tell = Teller("device")](const dsmi_event& event) {
            event.eventName == std::string("held") ? gate.Hold() : void();
            tell(event);
        };
        Deliver(name, Raw(0x01, "held"));
        gate.AwaitArrival();
    }

    // Runs `stop` on a thread of its own, and `release` once it waits in a join (or has ended without one).
    void StopMeanwhile(const Hook& stop, const Hook& release) {
        std::atomic<bool> done{false};
        Next("join", [&] { done = true; });
        Background stopper([&] { stop(), done = true; });
        AwaitCondition("a join", [&] { return done.load(); });
        release();
        stopper.Join();
    }

    // The three ways in which a thread of the security family is ended.
    std::vector<Hook> WaysToStop() {
        return {[&] { server_->StopSubscribeEvent({SEC}, SECURITY_EVENT); },
                [&] {
                    server_->StopSubscribeEvent({}, SECURITY_EVENT);
                    server_->StartSubscribeEvent({}, SECURITY_EVENT);
                },
                [&] { server_ = std::make_unique<Server>(); }};
    }

    void StartAfresh() {
        SetAbsent(SEC, false);
        server_->StopSubscribeEvent({}, SECURITY_EVENT);
        server_->StartSubscribeEvent({SEC}, SECURITY_EVENT);
        ClearJournal();
    }
};

TEST_F(Subscription, AStartOpensWhatTheNamesAllowInOrderAndReportsTheRest) {
    const std::string dot = "log 3 Illegal fileName, find '.', cannot open file=";
    const std::string noColon = "log 3 Illegal fileName, cannot find ':', cannot open file=";
    const std::string prefix = "log 3 CheckFileNameIsValid failed prefix=/res/, fileName=";
    const std::string twice = "log 3 resFile=" + PM + " is repeated, please check your input groupOwnerList | ";
    const std::string next = " | ";
    const auto check = [&](ReportEvent::EventType family, const Names& list, int result, const std::string& expected) {
        SCOPED_TRACE(testing::PrintToString(list));
        ClearJournal();
        EXPECT_EQ(result, server_->StartSubscribeEvent(list, family));
        EXPECT_EQ(family == FAULT_EVENT, Get(faultRunning));
        EXPECT_EQ(family == SECURITY_EVENT, Get(securityRunning));
        EXPECT_EQ(0, server_->StartSubscribeEvent({"bad", TWO}, family)) << "running: nothing is looked at";
        EXPECT_EQ(expected, Journal("open log thread close join"));
        EXPECT_EQ(0, server_->StopSubscribeEvent(Keys(family), family));
        EXPECT_EQ(Names(), Keys(family));
    };
    SetAbsent("x:/res/absent");
    check(FAULT_EVENT, {SEA, PM}, 0, Started(PM, 1000) + next + Started(SEA, 1001));
    check(FAULT_EVENT, {PM, PM, PM}, BAD_NAME, twice + twice + Started(PM, 1000));
    check(FAULT_EVENT, {"dp:/res/pm/fm.1", ".", "dp/res/pm/fm", "", "dp:res/pm/fm", "a:b:/res/x", "dp:/res", "x:/resx"},
          BAD_NAME,
          dot + "dp:/res/pm/fm.1 | " + dot + ". | " + noColon + "dp/res/pm/fm | " + noColon + next + prefix +
              "dp:res/pm/fm | " + prefix + "a:b:/res/x | " + prefix + "dp:/res | " + prefix + "x:/resx");
    check(FAULT_EVENT, {"x:/res/absent", "x:/res/:", "x:/res/", ":/res/x"}, OPEN_FAILED,
          Started(":/res/x", 1000) + next + Started("x:/res/", 1001) + next + Started("x:/res/:", 1002) + next +
              Started("x:/res/absent", -1));
    check(FAULT_EVENT, {"bad", "x:/res/absent"}, OPEN_FAILED, noColon + "bad | " + Started("x:/res/absent", -1));
    check(FAULT_EVENT, {}, 0, "");
    check(SECURITY_EVENT, {"z.z", SEC, "x:/res/absent", "z.z"}, OPEN_FAILED,
          Started(SEC, 1000) + next + Started("x:/res/absent", -1) + next + Started("z.z", 1001));
    check(SECURITY_EVENT, {SEC, SEC}, 0, Started(SEC, 1000));
}

TEST_F(Subscription, AFreshInstanceIsEmptyAndADescriptorMayBeZero) {
    {
        Server fresh;
        EXPECT_TRUE((fresh.*faults).empty() && (fresh.*securities).empty());
        EXPECT_FALSE(fresh.*faultRunning || fresh.*securityRunning);
        EXPECT_FALSE(fresh.*eventCallback || fresh.*deviceCallback || fresh.*securityCallback);
    }
    EXPECT_EQ("check 16 | log 16 ~ReportEventServerImpl... | flush", Journal());
    EXPECT_EQ(0, ReportEvent::EventSourceInfo().fd);
    UseNumbersFrom(0);
    EXPECT_EQ(0, server_->StartSubscribeEvent({ONE}, FAULT_EVENT));
    Fail(ONE, EPIPE);
    Await(Reconnected("success", ONE, 0));
    Deliver(ONE, Raw(0x01, "zero"));
    Await("device zero");
    EXPECT_EQ(0, server_->StopSubscribeEvent({ONE}, FAULT_EVENT));
}

TEST_F(Subscription, AStopClearsTheFlagThenClosesThenJoinsWhatIsListed) {
    EXPECT_EQ(0, server_->StopSubscribeEvent({ONE, "unknown"}, FAULT_EVENT));
    EXPECT_EQ("", Journal());
    server_->StartSubscribeEvent({ONE, TWO}, FAULT_EVENT);
    server_->StartSubscribeEvent({SEC}, SECURITY_EVENT);
    AwaitBlocked(ONE, TWO, SEC);
    Next("close", [&] { EXPECT_TRUE(!Get(faultRunning) && Get(securityRunning)); });
    ClearJournal();
    EXPECT_EQ(BAD_NAME, server_->StopSubscribeEvent({TWO, "unknown", TWO, ONE}, FAULT_EVENT));
    EXPECT_EQ(BAD_NAME, server_->StopSubscribeEvent({ONE, SEC}, SECURITY_EVENT));
    EXPECT_EQ(
        "close(1001) | " + Joined(TWO, BY_STOP) +
            " | log 3 Illegal fileName=unknown, cannot find resfile in faultEvtSrcMap_ | log 3 Illegal fileName=" +
            TWO + ", cannot find resfile in faultEvtSrcMap_ | close(1000) | " + Joined(ONE, BY_STOP) +
            " | log 3 Illegal fileName=" + ONE + ", cannot find resfile in secEvtSrcMap_ | close(1002) | " +
            Joined(SEC, BY_STOP),
        Journal("open close join log fte"));
    EXPECT_TRUE(Get(faults).empty() && Get(securities).empty());
}

TEST_F(Subscription, AThreadThatCannotBeStartedLeavesTheFilesBeforeItSubscribed) {
    Next("thread", nullptr);
    Results("thread", {EAGAIN});
    EXPECT_THROW(server_->StartSubscribeEvent({ONE, TWO, THREE}, FAULT_EVENT), std::system_error);
    EXPECT_EQ(Started(ONE, 1000) + " | " + Opened(TWO, 1001) + " | log 2 Open file success. resFile=" + TWO +
                  ", fd=1001 | close(1001)",
              Journal("open log thread close"));
    EXPECT_EQ(Names{ONE}, Keys(FAULT_EVENT));
    EXPECT_TRUE(Get(faultRunning));
    Deliver(ONE, Raw(0x01, "still"));
    Await("device still");
    EXPECT_EQ(BAD_NAME, server_->StopSubscribeEvent({ONE, TWO, THREE}, FAULT_EVENT));
}

TEST_F(Subscription, TheDestructorStopsBothFamiliesInKeyOrderAndFlushesLast) {
    Gate callback;
    Gate pause;
    server_->StartSubscribeEvent({SEC}, SECURITY_EVENT);
    server_->StartSubscribeEvent({TWO, ONE, PM}, FAULT_EVENT);
    AwaitBlocked(TWO, PM);
    HoldInPause(SEC, pause);
    HoldInCallback(ONE, callback);
    Always("close",
           [&faults = Get(faultRunning), &securities = Get(securityRunning)] { EXPECT_FALSE(faults || securities); });
    Next("log", [&faults = Get(faultRunning)] { EXPECT_TRUE(faults) << "the first message"; });
    ClearJournal();
    const auto release = [&] { callback.Open(), Await("join", 7), pause.Open(); };  // four begun, three done
    StopMeanwhile([&] { server_.reset(); }, release);
    EXPECT_EQ("log 16 ~ReportEventServerImpl... | close(1001) | join | device held" +
                  Joined(ONE, BY_JOIN).replace(0, 4, "") + " | close(1002) | " + Joined(TWO, BY_JOIN) +
                  " | close(1003) | " + Joined(PM, BY_JOIN) + " | join | " + GAVE_UP +
                  Joined(SEC, BY_JOIN).replace(0, 4, "") + " | flush",
              Journal("open close join log fte deliver flush"));
}

// What a stop did not list is retired by the next start, before the family runs again, whatever its thread is doing.
TEST_F(Subscription, NoLeftoverOfAStopSurvivesTheNextStart) {
    const auto scenario = [&](const char* state, const Names& stopped, const Names& started) {
        SCOPED_TRACE(state + testing::PrintToString(stopped) + testing::PrintToString(started));
        const bool paused = state == std::string("paused");
        const bool calling = state == std::string("calling");
        Gate gate;
        ClearJournal();
        EXPECT_EQ(0, server_->StartSubscribeEvent({ONE, TWO}, FAULT_EVENT));
        AwaitBlocked(ONE, TWO);
        paused ? HoldInPause(ONE, gate) : calling ? HoldInCallback(ONE, gate) : void();
        EXPECT_EQ(0, server_->StopSubscribeEvent(stopped, FAULT_EVENT));
        EXPECT_EQ(stopped.size(), Count("join thead"));
        SetAbsent(ONE, false);
        Always("close", [&] { EXPECT_FALSE(Get(faultRunning)); });
        StopMeanwhile([&] { EXPECT_EQ(0, server_->StartSubscribeEvent(started, FAULT_EVENT)); }, [&] { gate.Open(); });
        Always("close", nullptr);
        AwaitThreads(static_cast<int>(started.size()));
        EXPECT_EQ(1u, Count("JoinReadThread: join thead of resfile=" + ONE));
        std::set<std::string> known(started.begin(), started.end());
        known.insert({ONE, stopped.empty() ? TWO : ONE});
        EXPECT_EQ(Names(known.begin(), known.end()), Keys(FAULT_EVENT));
        for (const auto& [name, info] : Get(faults)) {
            const bool subscribed = std::count(started.begin(), started.end(), name) != 0;
            EXPECT_TRUE(subscribed ? info.fd >= 1000 : info.fd == -1) << name;
            EXPECT_EQ(subscribed, info.readThread.joinable()) << name;
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
            for (const Names& started : {Names{ONE, TWO}, Names{THREE}, Names{}}) { scenario(state, stopped, started); }
        }
    }
}

// By the time the read thread goes into its reconnection, the stop has closed the descriptor and the process has taken
// its number for a file of its own: the number is not closed again.
TEST_F(Subscription, ANumberThatTheProcessHasTakenIsNotClosedByAReconnection) {
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
    Next("closed", [&] { EXPECT_EQ(1000, OpenForeign()); });
    StopMeanwhile([&] { EXPECT_EQ(0, server_->StopSubscribeEvent({SEC}, SECURITY_EVENT)); }, [&] { lost.Open(); });
    EXPECT_EQ("close(1000) | join | " + GAVE_UP + Joined(SEC, BY_STOP).replace(0, 4, ""),
              Journal("open close join log"));
}

// Whether the thread still tries to reconnect or gave up long ago, and whoever ends it.
TEST_F(Subscription, ANumberGivenUpByAReconnectionIsNotClosedByAStop) {
    for (const bool gaveUp : {true, false}) {
        for (const Hook& stop : WaysToStop()) {
            StartAfresh();
            Gate pause;
            HoldInPause(SEC, pause);
            OpenForeign();
            gaveUp ? (pause.Open(), AwaitThreads()) : void();
            StopMeanwhile(stop, [&] { pause.Open(); });
            EXPECT_EQ(1u, Count("close("));
        }
    }
}

// The reopen is under way while the stop closes and joins: its descriptor is closed after the join, whether or not its
// number is the one from before.
TEST_F(Subscription, ADescriptorReopenedDuringAStopIsClosedByIt) {
    for (const int number : {1000, 1500}) {
        for (const Hook& stop : WaysToStop()) {
            UseNumbersFrom(1000);
            StartAfresh();
            Gate reopening;
            Next("open", [&] { reopening.Hold(); });
            Fail(SEC, EBADMSG);
            reopening.AwaitArrival();
            UseNumbersFrom(number);
            StopMeanwhile(stop, [&] { reopening.Open(); });
            EXPECT_EQ(Text("close(1000) | ", Opened(SEC, number, 0), " | close(", number, ")"), Journal("open close"));
        }
    }
}

TEST_F(Subscription, AThreadMayReconnectBeforeTheStartHasFinishedWithIt) {
    std::atomic<int> locks{0};  // for giving the old descriptor up, for storing the new one, for copying the callback
    Always("lock", [&] { locks += threadName.empty() ? 0 : 1; });
    Fail(SEC, EBADF);
    Next("closed", [&] { UseNumbersFrom(1600); });
    Next("thread started", [&] { Await(Reconnected("success", SEC, 1600)); });
    EXPECT_EQ(0, server_->StartSubscribeEvent({SEC}, SECURITY_EVENT));
    EXPECT_EQ(1600, Get(securities).at(SEC).fd);
    Deliver(SEC, Raw(0x11, "soon"));
    Await("security soon");
    EXPECT_EQ(0, server_->StopSubscribeEvent({SEC}, SECURITY_EVENT));
    EXPECT_EQ(3, locks);
    EXPECT_EQ("close(1000) | close(1600)", Journal("close"));
}

}  // namespace recording

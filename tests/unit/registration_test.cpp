// The public operations of the subscriber: what they store and call, in which order, and what they answer.
#include <pthread.h>

#include <csignal>
#include <cstdlib>

#include "tests/fakes/RecordingPlatform.h"

namespace recording {

class Registration : public LibraryTest {
protected:
    int Register(const Names& files, const std::string& who = "device") {
        return server_->FmRegisterMidReportEventImpl(
            files, [](const EventInfo&, const UDSInfoForCpp&) {}, Teller(who));
    }

    // Ends the process, a test's own, after telling what it did.
    void TellAndExit() {
        std::fprintf(stderr, "%s", Journal("sigaction open fte").c_str());
        std::_Exit(testing::Test::HasFailure() ? 1 : 0);
    }
};

TEST_F(Registration, TheFirstOneInstallsTheSigpipeHandlerForTheLifeOfTheProcess) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto faultsFirst = [&] {
        Register({});
        server_->FmUnregisterReportEventImpl({});
        Register({});
        server_->RegIDSEventReportHandlerImpl(nullptr);
        server_ = std::make_unique<Server>();
        server_->RegIDSEventReportHandlerImpl(nullptr);
        raise(SIGPIPE);
        server_.reset();
        EXPECT_EQ(1u, Count("log 16 server catch signal=13"));
        TellAndExit();
    };
    EXPECT_EXIT(faultsFirst(), testing::ExitedWithCode(0),
                "^sigaction\\(flags 0, no mask, null\\) . FTERegisterCallback . FTEUnregisterCallback . "
                "FTERegisterCallback . open\\(dp:/res/iam/sec_event, 2\\) = 1000 . "
                "open\\(dp:/res/iam/sec_event, 2\\) = 100.$");
    const auto securityFirst = [&] {
        Results("sigaction", {-1});  // goes unnoticed
        server_->RegIDSEventReportHandlerImpl(nullptr);
        server_->UnregIDSEventReportHandlerImpl();
        Register({});
        TellAndExit();
    };
    EXPECT_EXIT(securityFirst(), testing::ExitedWithCode(0),
                "^sigaction[^|]* . open[^|]* = 1000 . FTERegisterCallback$");
}

TEST_F(Registration, TheInstanceOfTheProcessEndsWithIt) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto run = [&] {
        std::atexit([] { std::fprintf(stderr, "%s", Platform::Get().Journal("open log close join flush").c_str()); });
        ReportEventServer::GetInstance().RegIDSEventReportHandlerImpl(nullptr);
        AwaitBlocked(SEC);
        ClearJournal();
        std::exit(0);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0),
                "^log 16 ~ReportEventServerImpl... . close\\(1000\\) . join . "
                "log 16 JoinReadThread: join thead of resfile=dp:/res/iam/sec_event success . flush$");
}

TEST_F(Registration, FirstCallsFromSeveralThreadsGetTheSameInstances) {
    std::vector<std::pair<ReportEventServer*, ReportEventClient*>> instances(4);
    std::deque<Background> callers;
    for (auto& each : instances) {
        callers.emplace_back([&] { each = {&ReportEventServer::GetInstance(), &ReportEventClient::GetInstance()}; });
    }
    callers.clear();
    EXPECT_EQ(4, std::count(instances.begin(), instances.end(), instances[0]));
    EXPECT_NE(nullptr, dynamic_cast<Server*>(instances[0].first));
    EXPECT_NE(nullptr, dynamic_cast<ProcMgr::ReportEventClientImpl*>(instances[0].second));
}

TEST_F(Registration, CallbacksAreStoredFirstAndTheFaultLibraryComesLastWhateverTheOutcome) {
    Get(deviceCallback) = Get(securityCallback) = nullptr;
    Next("open", [&] { EXPECT_TRUE(Get(eventCallback) && Get(deviceCallback) && !Get(securityCallback)); });
    EXPECT_EQ(0, Register({PM}));
    EXPECT_EQ(
        "open(dp:/res/pm/fm, 2) = 1000 | log 2 Open file success. resFile=dp:/res/pm/fm, fd=1000 | "
        "FTERegisterCallback",
        Journal("open log fte"));
    AwaitBlocked(PM);
    ClearJournal();
    Results("fte", {-1, 0x2F});
    EXPECT_EQ(0, Register({"bad", ONE}, "second")) << "running: only the callbacks are replaced";
    Deliver(PM, Raw(0x01, "alpha"));
    AwaitBlocked(PM);
    EXPECT_EQ(BAD_NAME, server_->FmUnregisterReportEventImpl({"bad", PM}));
    EXPECT_TRUE(Get(eventCallback) && Get(deviceCallback));
    EXPECT_EQ(0, server_->FmUnregisterReportEventImpl({"bad"}));
    EXPECT_EQ(BAD_NAME, Register({"bad"}));
    EXPECT_EQ(
        "FTERegisterCallback | log 3 FTERegister pm fault report Callback failed, ret=0xFFFFFFFF | second alpha | "
        "log 3 Illegal fileName=bad, cannot find resfile in faultEvtSrcMap_ | "
        "log 16 StopSubscribeEvent: join thead of resfile=dp:/res/pm/fm success | "
        "log 3 stop subscribe fault event failed, ret=0xF10206\n | "
        "FTEUnregisterCallback | log 16 FTEUnregisterCallback ret=0x2F | "
        "FTEUnregisterCallback | log 16 FTEUnregisterCallback ret=0x0 | "
        "log 3 Illegal fileName, cannot find ':', cannot open file=bad | "
        "log 3 subscribe fault event failed, ret=0xF10206\n | FTERegisterCallback",
        Journal("open log fte deliver"));
}

TEST_F(Registration, TheSecurityFamilyHasOneFileAndNothingToDoWithTheFaultLibrary) {
    Get(securityCallback) = nullptr;
    EXPECT_EQ(0, server_->UnregIDSEventReportHandlerImpl());
    SetAbsent(SEC, true);
    Next("open", [&] { EXPECT_TRUE(Get(securityCallback)); });
    EXPECT_EQ(OPEN_FAILED, server_->RegIDSEventReportHandlerImpl(Teller("ids")));
    EXPECT_EQ(BAD_NAME, server_->UnregIDSEventReportHandlerImpl());
    EXPECT_EQ(
        "open(dp:/res/iam/sec_event, 2) = -1 | "
        "log 3 Open file failed. resFile=dp:/res/iam/sec_event fd=-1 | "
        "log 3 subscribe security event failed, ret=0xF10005\n | "
        "log 3 Illegal fileName=dp:/res/iam/sec_event, cannot find resfile in secEvtSrcMap_ | "
        "log 3 stop subscribe security event failed, ret=0xF10206\n",
        Journal("open log fte"));
    SetAbsent(SEC, false);
    for (const char* who : {"first", "second"}) {
        EXPECT_EQ(0, server_->RegIDSEventReportHandlerImpl(Teller(who)));
        Deliver(SEC, Raw(0x11, "login"));
        Await(Text(who, " login"));
    }
    EXPECT_EQ(0, server_->UnregIDSEventReportHandlerImpl());
    EXPECT_TRUE(Get(securityCallback) && !Get(eventCallback));
    EXPECT_EQ("", Journal("fte"));
}

TEST_F(Registration, FaultsFromTheFaultLibraryTakeTheSameRoad) {
    Register({});
    const Bytes record = Raw(0x01, "inbound");
    ClearJournal();
    EXPECT_EQ(0, faultCallback(record.data(), 362));
    Background thread([&] {
        pthread_setname_np(pthread_self(), "fifteen_letters");
        EXPECT_EQ(-1, faultCallback(record.data(), 2));
        Results("prctl", {-1});
        EXPECT_EQ(-1, faultCallback(nullptr, 362));
    });
    thread.Join();
    const std::string refused = " | log 3 deserialize data failed, header is null or size error | prctl 16 | ";
    EXPECT_EQ("device inbound" + refused + "log 3 fault reported failed by thread=fifteen_letters" + refused +
                  "log 3 fault reported failed by thread=",
              Journal("log prctl deliver"));
}

// A delivery in flight goes on with the old callable and holds nothing that a registration of either family needs.
TEST_F(Registration, ACallbackIsReplacedWhileItRuns) {
    Gate gate;
    server_->FmRegisterMidReportEventImpl({PM}, nullptr, [&, tell = Teller("old")](const dsmi_event& event) {
        EXPECT_EQ(0, server_->RegIDSEventReportHandlerImpl(Teller("ids")));
        gate.Hold();
        tell(event);
    });
    Deliver(PM, Raw(0x01, "first"));
    Deliver(PM, Raw(0x01, "next"));
    gate.AwaitArrival();
    EXPECT_EQ(0, Register({PM}, "new"));
    gate.Open();
    Await("new next");
    EXPECT_EQ("old first | new next", Journal("deliver"));
    EXPECT_EQ(1u, Get(securities).count(SEC));
}

// Client code in the destructor of a replaced callable may receive and register.
TEST_F(Registration, AReplacedCallableDiesOutsideEveryLock) {
    int farewells = 0;
    const auto callable = [&] {
        return std::shared_ptr<void>(nullptr, [&](void*) {
            ++farewells;
            server_->DeSerializeDataAndCallback(Raw(0x11, "inside").data(), 362);
            server_->RegIDSEventReportHandlerImpl(Teller("ids"));
        });
    };
    const auto device = [&] { return [held = callable()](const dsmi_event&) {}; };
    server_->FmRegisterMidReportEventImpl(
        {}, [held = callable()](const EventInfo&, const UDSInfoForCpp&) {}, device());
    server_->RegIDSEventReportHandlerImpl(device());
    EXPECT_EQ(0, farewells);
    server_->RegIDSEventReportHandlerImpl(nullptr);
    Register({});
    EXPECT_EQ(3, farewells);
}

// A callable is never destroyed while a delivery copies it: the registration waits for the copy.
TEST_F(Registration, ACopyAndAReplacementExcludeEachOther) {
    struct Slow {
        Hook copying;
        Slow(Hook action) : copying(std::move(action)) {}
        Slow(const Slow& other) : copying(other.copying) { copying(); }
        void operator()(const dsmi_event&) const {}
        void operator()(const EventInfo&, const UDSInfoForCpp&) const {}
    };
    for (const unsigned char header : {0x00, 0x01, 0x11}) {
        SCOPED_TRACE(+header);
        std::atomic<bool> armed{false};
        std::atomic<bool> replaced{false};
        std::unique_ptr<Background> replacing;
        const Hook replace = [&] {
            server_->RegIDSEventReportHandlerImpl(nullptr);
            server_->FmRegisterMidReportEventImpl({}, nullptr, nullptr);
            replaced = true;
        };
        const Slow slow([&] {
            if (armed.exchange(false)) {
                replacing = std::make_unique<Background>(replace);
                AwaitCondition("the lock", [&] { return replaced || Count("lock wait") > 0; });
                EXPECT_FALSE(replaced);
            }
        });
        header == 0x11 ? server_->RegIDSEventReportHandlerImpl(slow)
                       : server_->FmRegisterMidReportEventImpl({}, slow, slow);
        ClearJournal();
        armed = true;
        server_->DeSerializeDataAndCallback(Raw(header, "copied").data(), 362);
        ASSERT_NE(nullptr, replacing);
        replacing->Join();
        EXPECT_TRUE(replaced);
    }
}

}  // namespace recording

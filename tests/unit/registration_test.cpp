// The public operations of the subscriber: what they store and call, in which order, and what they answer.
#include <pthread.h>

#include <csignal>
#include <cstdlib>

#include "tests/fakes/RecordingPlatform.h"

namespace recording {

// A callable for any kind of event that tells when it is copied, called and, its last copy, destroyed.
struct Callable {
    Hook copying, calling;
    std::shared_ptr<void> held;
    Callable(Hook onCopy, Hook onCall, Hook onEnd)
        : copying(std::move(onCopy)), calling(std::move(onCall)), held(nullptr, [onEnd](void*) { onEnd(); })
    {
    }
    Callable(const Callable& other) : copying(other.copying), calling(other.calling), held(other.held)
    {
        copying();
    }
    template <typename... Event>
    void operator()(const Event&...) const
    {
        calling();
    }
};

class Registration : public LibraryTest {
protected:
    int Register(const Names& files, const std::string& who = "device")
    {
        return server_->FmRegisterMidReportEventImpl(
            files, [](const EventInfo&, const UDSInfoForCpp&) {}, Teller(who));
    }
};

TEST_F(Registration, TheFirstOneInstallsTheSigpipeHandlerForTheLifeOfTheProcess)
{
    const std::string installed = "sigaction(flags 0, no mask, null)", opened = " | open(" + SEC + ", 2) = 1000";
    const std::string fte = " | FTERegisterCallback", unregistered = " | FTEUnregisterCallback";
    ExpectAtExit("sigaction open fte", installed + fte + unregistered + fte + opened + opened, [&] {
        Register({});
        server_->FmUnregisterReportEventImpl({});
        Background([&] { Register({}); }).Join();
        server_->RegIDSEventReportHandlerImpl(nullptr);
        server_ = std::make_unique<Server>();
        server_->RegIDSEventReportHandlerImpl(nullptr);
        raise(SIGPIPE);
        server_.reset();
        EXPECT_EQ(1u, Count("log 16 server catch signal=13"));
    });
    ExpectAtExit("sigaction open fte", installed + opened + fte, [&] {
        Results("sigaction", {-1});  // goes unnoticed
        server_->RegIDSEventReportHandlerImpl(nullptr);
        server_->UnregIDSEventReportHandlerImpl();
        Register({});
    });
}

TEST_F(Registration, TheInstanceOfTheProcessEndsWithIt)
{
    const std::string end = "log 16 ~ReportEventServerImpl... | close(1000) | " + Joined(SEC) + " | flush";
    ExpectAtExit("open log close join flush", end, [&] {
        ReportEventServer& instance = ReportEventServer::GetInstance();
        EXPECT_EQ(&instance, &ReportEventServer::GetInstance());
        instance.RegIDSEventReportHandlerImpl(nullptr);
        AwaitBlocked(SEC);
        Journal();
    });
}

TEST_F(Registration, CallbacksAreStoredFirstAndTheFaultLibraryComesLastWhateverTheOutcome)
{
    Of(deviceCallback) = Of(securityCallback) = nullptr;
    Next("open", [&] { EXPECT_TRUE(Of(eventCallback) && Of(deviceCallback) && !Of(securityCallback)); });
    EXPECT_EQ(0, Register({PM}));
    EXPECT_EQ(Opened(PM) + " | FTERegisterCallback", Journal("open log fte"));
    AwaitBlocked(PM);
    Journal();
    Results("fte", {-1, 0x2F});
    EXPECT_EQ(0, Register({"bad", ONE}, "second")) << "running: only the callbacks are replaced";
    Deliver(PM, Raw(0x01, "alpha"));
    AwaitBlocked(PM);
    EXPECT_EQ(BAD_NAME, server_->FmUnregisterReportEventImpl({"bad", PM}));
    EXPECT_TRUE(Of(eventCallback) && Of(deviceCallback));
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

TEST_F(Registration, TheSecurityFamilyHasOneFileAndNothingToDoWithTheFaultLibrary)
{
    Of(securityCallback) = nullptr;
    EXPECT_EQ(0, server_->UnregIDSEventReportHandlerImpl());
    SetAbsent(SEC, true);
    Next("open", [&] { EXPECT_TRUE(Of(securityCallback)); });
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
    EXPECT_TRUE(Of(securityCallback) && !Of(eventCallback));
    EXPECT_EQ("", Journal("fte"));
}

// A cancellation waits until the operation is over, and the thread's own setting stays as it was.
TEST_F(Registration, NoOperationIsCancelledInTheMiddle)
{
    const auto cancelState = [] {
        int state = 0;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
        pthread_setcancelstate(state, nullptr);
        return state;
    };
    ProcMgr::ReportEventClientImpl publisher;
    for (const char* call : {"open", "close", "join", "fte", "iam"}) {
        Always(call, [&] { EXPECT_EQ(PTHREAD_CANCEL_DISABLE, cancelState()); });
    }
    for (const int before : {PTHREAD_CANCEL_ENABLE, PTHREAD_CANCEL_DISABLE}) {
        pthread_setcancelstate(before, nullptr);
        const Hook operations[] = {[&] { Register({PM}); }, [&] { server_->FmUnregisterReportEventImpl({PM}); },
                                   [&] { server_->RegIDSEventReportHandlerImpl(nullptr); },
                                   [&] { server_->UnregIDSEventReportHandlerImpl(); },
                                   [&] { publisher.RegisterResService(PM); }};
        for (const Hook& operation : operations) {
            operation();
            EXPECT_EQ(before, cancelState());
        }
    }
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    Always("iam", nullptr);
}

TEST_F(Registration, FaultsFromTheFaultLibraryTakeTheSameRoad)
{
    Register({});
    const Bytes record = Raw(0x01, "inbound");
    Journal();
    EXPECT_EQ(0, faultCallback(record.data(), 362));
    Background([&] {
        pthread_setname_np(pthread_self(), "fifteen_letters");
        EXPECT_EQ(-1, faultCallback(record.data(), 2));
        Results("prctl", {-1});
        EXPECT_EQ(-1, faultCallback(nullptr, 362));
    }).Join();
    const std::string refused = " | log 3 deserialize data failed, header is null or size error | prctl 16 | ";
    EXPECT_EQ("device inbound" + refused + "log 3 fault reported failed by thread=fifteen_letters" + refused +
                  "log 3 fault reported failed by thread=",
              Journal("log prctl deliver"));
}

// The read thread and the thread of the fault library run the old callable while it is replaced, which waits for the
// copy that the latter makes. It dies with the last delivery, or else with the replacement, outside every lock: client
// code in its destructor receives and registers, as do callables themselves.
TEST_F(Registration, ACallbackIsReplacedWhileTwoThreadsDeliver)
{
    const auto use = [&](unsigned char header, const Callable& client) {
        EXPECT_EQ(0, header == 0x11   ? server_->RegIDSEventReportHandlerImpl(client)
                     : header == 0x01 ? server_->FmRegisterMidReportEventImpl({PM}, nullptr, client)
                                      : server_->FmRegisterMidReportEventImpl({PM}, client, nullptr));
    };
    const Hook nothing = [] {};
    const Callable silent(nothing, nothing, nothing);
    deserialize = [](auto...) { return 0; };
    for (const unsigned char header : {0x00, 0x01, 0x11}) {
        SCOPED_TRACE(+header);
        const unsigned char other = header == 0x11 ? 0x01 : 0x11;
        const Bytes record = Raw(header, "");
        Gate reading, reporting;
        std::atomic<bool> armed{false}, replaced{false};
        std::unique_ptr<Background> replacing;
        int farewells = 0;
        const Callable next(
            nothing, [&] { Record("deliver", "new"); }, nothing);
        const Hook replace = [&] { use(header, next), replaced = true; };
        const Hook copy = [&] {
            if (!armed.exchange(false)) {
                return;
            }
            replacing = std::make_unique<Background>(replace);
            AwaitCondition("the lock", [&] { return replaced || Count("lock wait") > 0; });
            EXPECT_FALSE(replaced);
        };
        const Hook call = [&] {
            Record("deliver", "old");
            threadName.empty() ? reporting.Hold() : (use(other, silent), reading.Hold());
        };
        const Hook farewell = [&] {
            ++farewells;
            EXPECT_TRUE(server_->DeSerializeDataAndCallback(record.data(), 362));
            use(other, silent);
        };
        use(0x00, silent);  // the family runs
        use(header, Callable(copy, call, farewell));
        Deliver(PM, record);
        reading.AwaitArrival();
        Deliver(PM, record);
        Journal();
        armed = true;
        Background reporter([&] { EXPECT_EQ(0, faultCallback(record.data(), 362)); });
        reporting.AwaitArrival();
        ASSERT_NE(nullptr, replacing);
        replacing->Join();
        reading.Open();
        AwaitBlocked(PM);
        EXPECT_EQ(0, farewells);
        reporting.Open();
        reporter.Join();
        EXPECT_EQ("old | new | new", Journal("deliver"));
        EXPECT_EQ(1, farewells);
        use(header, Callable(nothing, nothing, farewell));
        use(header, silent);
        EXPECT_EQ(2, farewells);
    }
}

}  // namespace recording

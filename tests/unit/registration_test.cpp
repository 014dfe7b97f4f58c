// The public operations of the subscriber: what they store and call, in which order, and what they answer.
#include <pthread.h>

#include <csignal>
#include <cstdlib>

#include "tests/fakes/RecordingPlatform.h"

namespace recording {

// A callable for any kind of event that tells when it is copied, called and, its last copy, destroyed.
struct Callable {
    Hook copying;
    Hook calling;
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
    const auto disposition = [] {
        struct sigaction installed = {};
        sigaction(SIGPIPE, nullptr, &installed);
        return installed;
    };
    const Hook registrations[] = {[&] { Register({}); }, [&] { server_->RegIDSEventReportHandlerImpl(nullptr); }};
    for (const Hook& first : registrations) {
        ExpectAtExit("", [&] {
            first();
            Journal();
            raise(SIGPIPE);
            EXPECT_EQ("log 16 server catch signal=13", Journal("log"));
            const auto installed = disposition();
            EXPECT_EQ(0, installed.sa_flags & (SA_RESTART | SA_RESETHAND | SA_SIGINFO));
            EXPECT_NE(0, sigisemptyset(&installed.sa_mask));
            signal(SIGPIPE, SIG_IGN);
            for (const Hook& later : registrations) {
                server_ = std::make_unique<Server>();
                later();
            }
            EXPECT_EQ(SIG_IGN, disposition().sa_handler);
            Journal();
        });
    }
}

TEST_F(Registration, CallbacksAreStoredFirstAndTheFaultLibraryComesLastWhateverTheOutcome)
{
    server_->reportEventMidCb = nullptr;
    Next("open", [&] { EXPECT_TRUE(server_->reportEventCb && server_->reportEventMidCb); });
    EXPECT_EQ(RESULT_OK, Register({PM}));
    EXPECT_EQ(Opened(PM) + " | FTERegisterCallback", Journal("open log fte"));
    Results("fte", {-1, 0x2F});
    EXPECT_EQ(RESULT_OK, Register({"bad", ONE}, "second")) << "running: only the callbacks are replaced";
    Deliver(PM, Raw(0x01, "alpha"));
    AwaitBlocked(PM);
    EXPECT_EQ(RESULT_BAD_NAME, server_->FmUnregisterReportEventImpl({"bad", PM}));
    EXPECT_TRUE(server_->reportEventCb && server_->reportEventMidCb);
    EXPECT_EQ(RESULT_OK, server_->FmUnregisterReportEventImpl({"bad"}));
    EXPECT_EQ(RESULT_BAD_NAME, Register({"bad"}));
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
    server_->idsEventReportCb = nullptr;
    EXPECT_EQ(RESULT_OK, server_->UnregIDSEventReportHandlerImpl());
    SetAbsent(SEC);
    Next("open", [&] { EXPECT_TRUE(server_->idsEventReportCb); });
    EXPECT_EQ(RESULT_OPEN_FAILED, server_->RegIDSEventReportHandlerImpl(Teller("ids")));
    EXPECT_EQ(RESULT_BAD_NAME, server_->UnregIDSEventReportHandlerImpl());
    EXPECT_EQ(
        "open(dp:/res/iam/sec_event, 2) = -1 | "
        "log 3 Open file failed. resFile=dp:/res/iam/sec_event fd=-1 | "
        "log 3 subscribe security event failed, ret=0xF10005\n | "
        "log 3 Illegal fileName=dp:/res/iam/sec_event, cannot find resfile in secEvtSrcMap_ | "
        "log 3 stop subscribe security event failed, ret=0xF10206\n",
        Journal("open log fte"));
    SetAbsent(SEC, false);
    EXPECT_EQ(RESULT_OK, server_->RegIDSEventReportHandlerImpl(Teller("ids")));
    Deliver(SEC, Raw(0x11, "login"));
    Await("ids login");
    EXPECT_EQ(RESULT_OK, server_->UnregIDSEventReportHandlerImpl());
    EXPECT_TRUE(server_->idsEventReportCb);
    EXPECT_FALSE(server_->reportEventCb);
    EXPECT_EQ("", Journal("fte"));
}

// A cancellation waits until the operation is over, and the thread's own setting stays as it was.
TEST_F(Registration, NoOperationIsCancelledInTheMiddle)
{
    const auto expectState = [](int expected) {
        int state = -1;
        pthread_setcancelstate(expected, &state);
        EXPECT_EQ(expected, state);
    };
    Client publisher;
    const Hook operations[] = {[&] { Register({PM}); }, [&] { server_->FmUnregisterReportEventImpl({PM}); },
                               [&] { server_->RegIDSEventReportHandlerImpl(nullptr); },
                               [&] { server_->UnregIDSEventReportHandlerImpl(); },
                               [&] { publisher.RegisterResService(PM); }};
    for (const char* call : {"open", "close", "fte", "iam"}) {
        Always(call, [&] { expectState(PTHREAD_CANCEL_DISABLE); });
    }
    for (const int before : {PTHREAD_CANCEL_DISABLE, PTHREAD_CANCEL_ENABLE}) {
        pthread_setcancelstate(before, nullptr);
        for (const Hook& operation : operations) {
            operation();
            expectState(before);
        }
    }
    Always("iam", nullptr);  // called once more at the publisher's end
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

// The replacement waits for a copy that is being made for a delivery, not for the call. The old callable dies with its
// last delivery, or else with the replacement, outside every lock: a callable and its destructor, which is client code
// too, may receive and register.
TEST_F(Registration, ACallbackIsReplacedWhileItRuns)
{
    const auto use = [&](unsigned char header, const Callable& client) {
        if (header == 0x11) {
            server_->RegIDSEventReportHandlerImpl(client);
        } else if (header == 0x01) {
            server_->FmRegisterMidReportEventImpl({}, nullptr, client);
        } else {
            server_->FmRegisterMidReportEventImpl({}, client, nullptr);
        }
    };
    const Hook nothing = [] {};
    const Callable silent(nothing, nothing, nothing);
    const Callable next(
        nothing, [&] { Record("deliver", "new"); }, nothing);
    deserialize = [](auto...) { return 0; };
    for (const unsigned char header : {0x00, 0x01, 0x11}) {
        SCOPED_TRACE(+header);
        const unsigned char other = header == 0x11 ? 0x01 : 0x11;
        const Bytes record = Raw(header, "");
        std::atomic<bool> isDelivering{false};
        std::unique_ptr<Background> replacing;
        int farewells = 0;
        Gate calling;
        const Hook copy = [&] {
            if (isDelivering.exchange(false)) {
                replacing = std::make_unique<Background>([&] { use(header, next); });
                Await("lock wait");
            }
        };
        const Hook call = [&] {
            Record("deliver", "old");
            use(other, silent);
            calling.Hold();
        };
        const Hook farewell = [&] {
            ++farewells;
            use(other, silent);
            EXPECT_TRUE(server_->DeSerializeDataAndCallback(record.data(), 362));
        };
        use(header, Callable(copy, call, farewell));
        Journal();
        isDelivering = true;
        Background delivery([&] { EXPECT_EQ(0, faultCallback(record.data(), 362)); });
        calling.AwaitArrival();
        replacing->Join();
        EXPECT_EQ(0, farewells);
        calling.Open();
        delivery.Join();
        EXPECT_EQ("old | new", Journal("deliver"));
        EXPECT_EQ(1, farewells);
        use(header, Callable(nothing, nothing, farewell));
        use(header, silent);
        EXPECT_EQ(2, farewells);
    }
    server_->UnregIDSEventReportHandlerImpl();
}

}  // namespace recording

// The public operations of the subscriber: what they store and call, in which order, and what they answer.
#include <pthread.h>

#include <csignal>
#include <cstdlib>

#include "tests/fakes/RecordingPlatform.h"

namespace recording {

// Part of a callback: tells when that is copied.
struct CopyTeller {
    Hook tell;

    explicit CopyTeller(Hook hook) : tell(std::move(hook))
    {
    }
    CopyTeller(const CopyTeller& other) : tell(other.tell)
    {
        tell();
    }
};

class Registration : public LibraryTest {
protected:
    int Register(const Names& files, const char* who = "device ")
    {
        return server_->FmRegisterMidReportEventImpl(
            files, [](const EventInfo&, const UDSInfoForCpp&) {}, Teller(who));
    }
};

TEST_F(Registration, TheFirstOneInstallsTheSigpipeHandlerForTheLifeOfTheProcess)
{
    const Hook registrations[] = {[&] { Register({}); }, [&] { server_->RegIDSEventReportHandlerImpl(nullptr); }};
    for (const Hook& first : registrations) {
        ExpectAtExit("check 16 | log 16 server catch signal=13", [&] {
            first();
            struct sigaction installed = {};
            sigaction(SIGPIPE, nullptr, &installed);
            EXPECT_EQ(0, installed.sa_flags & (SA_RESTART | SA_RESETHAND | SA_SIGINFO));
            EXPECT_NE(0, sigisemptyset(&installed.sa_mask));
            signal(SIGPIPE, SIG_IGN);
            for (const Hook& later : registrations) {
                server_ = std::make_unique<Server>();
                later();
            }
            EXPECT_EQ(SIG_IGN, signal(SIGPIPE, installed.sa_handler));
            server_.reset();
            Journal();
            raise(SIGPIPE);
        });
    }
}

TEST_F(Registration, CallbacksAreStoredFirstAndTheFaultLibraryComesLastWhateverTheOutcome)
{
    server_->reportEventMidCb = nullptr;
    Next("open " + PM, {[&] { EXPECT_TRUE(server_->reportEventCb && server_->reportEventMidCb); }});
    EXPECT_EQ(RESULT_OK, Register({PM}));
    EXPECT_EQ(Opened(PM) + " | FTERegisterCallback", Journal("open log fte"));
    Results("fte", {-1, 0x2F});
    EXPECT_EQ(RESULT_OK, Register({"bad", ONE}, "second ")) << "running: only the callbacks are replaced";
    Next(PM, Success(Raw(0x01, "alpha")));
    Await("second alpha");
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
    Next("open " + SEC, {[&] { EXPECT_TRUE(server_->idsEventReportCb); }, -1});
    EXPECT_EQ(RESULT_OPEN_FAILED, server_->RegIDSEventReportHandlerImpl(Teller("ids ")));
    EXPECT_EQ(RESULT_BAD_NAME, server_->UnregIDSEventReportHandlerImpl());
    EXPECT_EQ(
        "open(dp:/res/iam/sec_event, 2) = -1 | "
        "log 3 Open file failed. resFile=dp:/res/iam/sec_event fd=-1 | "
        "log 3 subscribe security event failed, ret=0xF10005\n | "
        "log 3 Illegal fileName=dp:/res/iam/sec_event, cannot find resfile in secEvtSrcMap_ | "
        "log 3 stop subscribe security event failed, ret=0xF10206\n",
        Journal("open log fte"));
    EXPECT_TRUE(server_->idsEventReportCb);
    EXPECT_FALSE(server_->reportEventCb);
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
    const Script expectNone = {[&] { expectState(PTHREAD_CANCEL_DISABLE); }};
    for (const int before : {PTHREAD_CANCEL_DISABLE, PTHREAD_CANCEL_ENABLE}) {
        Next("open " + PM, expectNone);
        Next("open " + SEC, expectNone);
        Next("close", expectNone, 2);
        Next("fte", expectNone, 2);
        Next("iam", expectNone, 2);
        pthread_setcancelstate(before, nullptr);
        for (const Hook& operation : operations) {
            operation();
            expectState(before);
        }
    }
}

TEST_F(Registration, FaultsFromTheFaultLibraryTakeTheSameRoad)
{
    Register({});
    const Bytes record = Raw(0x01, "inbound");
    Journal();
    EXPECT_EQ(0, faultCallback(record.data(), 362));
    pthread_setname_np(pthread_self(), "fifteen_letters");
    EXPECT_EQ(-1, faultCallback(record.data(), 2));
    Results("prctl", {-1});
    EXPECT_EQ(-1, faultCallback(nullptr, 362));
    const std::string refused = " | log 3 deserialize data failed, header is null or size error | prctl 16 | ";
    EXPECT_EQ("device inbound" + refused + "log 3 fault reported failed by thread=fifteen_letters" + refused +
                  "log 3 fault reported failed by thread=",
              Journal("log prctl deliver"));
}

// A replacement waits for a copy that is being made for a delivery, not for the call. The old callback dies with its
// last delivery, or else with the replacement, outside every lock: a callback and its destructor, which is client code
// too, may receive and register.
TEST_F(Registration, ACallbackIsReplacedWhileItRuns)
{
    struct Kind {
        unsigned char header;
        std::string replaced;  // the locks taken up to the replacement
        std::string then;      // and after it
    };
    const std::string lock = " | lock 1 | unlock";
    const auto say = [&](const char* what) {
        const Offstage offstage;
        Record("deliver", what);
    };
    deserialize = [](auto...) { return 0; };
    for (const Kind& kind : {Kind{0x00, lock, lock}, Kind{0x01, lock + lock, ""}, Kind{0x11, lock, ""}}) {
        const Bytes record = Raw(kind.header, "");
        const auto deliver = [&] { EXPECT_TRUE(server_->DeSerializeDataAndCallback(record.data(), 362)); };
        const auto use = [&](const auto& callback) {
            if (kind.header == 0x11) {
                server_->RegIDSEventReportHandlerImpl(callback);
            } else if (kind.header == 0x01) {
                server_->FmRegisterMidReportEventImpl({}, nullptr, callback);
            } else {
                server_->FmRegisterMidReportEventImpl({}, callback, nullptr);
            }
        };
        const auto useNew = [&] { use([&](const auto&...) { say("new"); }); };
        const auto useOld = [&] {
            const auto end = [&](void*) {
                say("ends");
                deliver();
            };
            const std::shared_ptr<void> life(nullptr, end);
            use([&, life, copied = CopyTeller([&] { say("copied"); })](const auto&...) {
                say("called");
                useNew();
                say("returns");
            });
        };
        useOld();
        Journal();
        deliver();
        EXPECT_EQ(
            "lock 1 | copied | unlock | called" + kind.replaced + kind.then + " | returns | ends" + lock + " | new",
            Journal("lock unlock deliver"));
        useOld();
        Journal();
        say("idle");
        useNew();
        EXPECT_EQ("idle" + kind.replaced + " | ends" + lock + " | new" + kind.then, Journal("lock unlock deliver"));
    }
}

}  // namespace recording

// The read thread: reading, classing failures, reconnecting, reporting a lost process manager.
#include <sys/prctl.h>

#include <csignal>
#include <set>

#include "tests/fakes/RecordingPlatform.h"

namespace recording {

const std::string MANAGER = "process-manager";
const std::string CAUGHT = "log 16 server catch signal=13";

static std::string Report(const std::string& name) {
    return "eventId=0x8C03A000, severity=2, assertion=1, deviceId=65535, procName=" + name;
}

class ReadLoop : public LibraryTest {
protected:
    static unsigned char Header(const std::string& name) { return name == SEC ? 0x11 : 0x01; }

    void Start(const std::string& name) {
        EXPECT_EQ(0, server_->StartSubscribeEvent({name}, name == SEC ? SECURITY_EVENT : FAULT_EVENT));
        AwaitBlocked(name);
        ClearJournal();
    }

    void Stop(const std::string& name) {
        EXPECT_EQ(0, server_->StopSubscribeEvent({name}, name == SEC ? SECURITY_EVENT : FAULT_EVENT));
    }
};

TEST_F(ReadLoop, EveryFailureIsClassedByItsErrno) {
    const std::set<int> passing = {ETIMEDOUT, EAGAIN, EIO};
    const std::set<int> lost = {EPIPE, EBADMSG, EBADFD, EBADF};
    const auto check = [&](const std::string& name, int error, const std::string& managed) {
        SCOPED_TRACE(Text(name, " errno ", error));
        const bool passes = passing.count(error) != 0;
        const bool reconnects = lost.count(error) != 0 && managed.empty();
        const std::string told = (name == SEC ? "security " : "device ") + std::string("next");
        Start(name);
        Fail(name, error, nullptr, -7);
        if (passes || reconnects) {
            Deliver(name, Raw(Header(name), "next"));
            Await(told);
            AwaitBlocked(name);
        } else {
            AwaitThreads();
        }
        EXPECT_EQ(passes                   ? told
                  : reconnects             ? Text("close(1000) | open(", name,
                                                  ", 0) = 1000 | log 16 Reconnect success. (file=", name, ",fd=1000) | ", told)
                  : lost.count(error) != 0 ? "log 3 FTEReport begin, " + Report(managed) + " | MidFTEReport"
                                           : Text("log 3 ReadData IAMFastRead ", name, " failed, ret=-7 errno=", error),
                  Journal("open close sleep log fte deliver"));
        Stop(name);
    };
    for (int error = 0; error <= 133; ++error) {
        check(PM, error, MANAGER);
        check(SEA, error, "sea_" + MANAGER);
        check(ONE, error, "");
        check(SEC, error, "");
    }
}

TEST_F(ReadLoop, AFileThatStaysAwayIsTriedForFiveSecondsAndGivenUp) {
    Start(SEC);
    SetAbsent(SEC);
    Fail(SEC, EBADFD);
    AwaitThreads();
    std::string expected = "close(1000)";
    for (int i = 0; i <= 50; ++i) { expected += " | open(" + SEC + ", 0) = -1 | sleep 100000 us"; }
    EXPECT_EQ(Text(expected, " | log 16 Reconnect failed. (file=", SEC, ",fd=-1) | log 3 Reconnect ", SEC,
                   " failed, ret=-1 errno=", EBADFD),
              Journal("open close sleep log"));
    Stop(SEC);
}

TEST_F(ReadLoop, AFileThatComesBackIsReadOnThroughItsNewDescriptor) {
    Start(ONE);
    SetAbsent(ONE, true);
    for (int i = 0; i < 9; ++i) { Next("sleep", nullptr); }
    Results("sleep", {EINTR});  // the rest of this pause follows
    Next("sleep", [&] {
        SetAbsent(ONE, false);
        UseNumbersFrom(1002);
    });
    Fail(ONE, EPIPE);
    Deliver(ONE, Raw(0x01, "again"));
    Await("device again");
    EXPECT_EQ(1002, Get(faults).at(ONE).fd);
    EXPECT_EQ(11u, Count("open("));
    EXPECT_EQ(10u, Count("sleep 100000 us"));
    EXPECT_EQ(1u, Count("sleep 50000 us"));
    Stop(ONE);
    EXPECT_EQ("close(1000) | close(1002)", Journal("close"));
}

TEST_F(ReadLoop, TheFlagEndsTheThreadWithoutAWord) {
    // Cleared during a read that fails: no report, no reconnection. During one that succeeds: its record is delivered.
    for (const std::string& name : {PM, SEC}) {
        std::atomic<bool>& running = Get(name == SEC ? securityRunning : faultRunning);
        for (const bool fails : {true, false}) {
            Start(name);
            const Hook clear = [&] { running = false, errno = EPIPE; };
            fails ? Fail(name, 0, clear) : Deliver(name, Raw(Header(name), "last"), clear);
            AwaitThreads();
            const std::string last = name == SEC ? "security last" : "device last";
            EXPECT_EQ(fails ? "" : last, Journal("log fte deliver open close"));
            running = true;
            Stop(name);
        }
    }
    // During the pause of a reconnection: not one attempt more.
    Start(ONE);
    SetAbsent(ONE, true);
    Next("sleep", [&] { Get(faultRunning) = false; });
    Fail(ONE, EPIPE);
    AwaitThreads();
    EXPECT_EQ(1u, Count("open("));
    Get(faultRunning) = true;
    Stop(ONE);
    // Before the thread has read anything.
    Next("prctl", [&] { Get(securityRunning) = false; });
    Fail(SEC, ENOENT);
    server_->StartSubscribeEvent({SEC}, SECURITY_EVENT);
    AwaitThreads();
    EXPECT_EQ(0u, Count("ReadData"));
}

TEST_F(ReadLoop, TheBufferIsZeroBeforeEveryRecordAlsoAfterOneThatFailed) {
    const std::string zeroed = " | memset_s(3960, 0, 3960)";
    const std::string failed = " | log 3 fault deserialize/callback failed, data read from " + SEC;
    for (const Bytes& record : {Raw(0x11, "good"), Bytes(3960, 0xFF), Bytes(3, 0x11), Bytes()}) {
        Deliver(SEC, record);
    }
    char name[16] = {};
    Get(securityCallback) = [&](const dsmi_event&) { prctl(PR_GET_NAME, name); };
    server_->StartSubscribeEvent({SEC}, SECURITY_EVENT);
    AwaitBlocked(SEC);
    EXPECT_STREQ("Rd_dp:/res/iam/", name);
    EXPECT_EQ("log 2 Open file success. resFile=" + SEC + ", fd=1000 | name Rd_" + SEC + zeroed +
                  " | read(1000) = 362 | prctl 16" + zeroed +
                  " | read(1000) = 3960 | log 3 invalid header, header=0xff" + failed + zeroed +
                  " | read(1000) = 3 | log 3 deserialized buf size is not eqaul with size of struct dsmi_event=360\n"
                  " | log 3 MidFTEDeSerialize err ret=0xF10205" +
                  failed + zeroed + " | read(1000) = 0 | log 3 deserialize data failed, header is null or size error" +
                  failed + zeroed,
              Journal("prctl memset_s read log deliver"));
    Stop(SEC);
    ClearJournal();
    noReadBuffers = true;
    server_->StartSubscribeEvent({SEC}, SECURITY_EVENT);
    AwaitThreads();
    EXPECT_EQ("log 2 Open file success. resFile=" + SEC + ", fd=1000 | log 3 unique point fail, errno=12 " + SEC,
              Journal("log memset_s read"));
}

// Raised while the thread is blocked in a read, between a failed read and its classing, and in the pauses of a
// reconnection.
TEST_F(ReadLoop, ASigpipeDisturbsNeitherTheStreamNorErrno) {
    EXPECT_EQ(0, server_->RegIDSEventReportHandlerImpl(Teller("security")));
    AwaitBlocked(SEC);
    ClearJournal();
    OnRead(SEC, {{[] { raise(SIGPIPE); }, std::nullopt}, {}, 0});
    Fail(SEC, EAGAIN, [] { raise(SIGPIPE); });
    Deliver(SEC, Raw(0x11, "on"));
    Await("security on");
    EXPECT_EQ(CAUGHT + " | " + CAUGHT + " | security on", Journal("log deliver close"));
    SetAbsent(SEC, true);
    Always("sleep", [] { raise(SIGPIPE); });
    Fail(SEC, EBADMSG);
    AwaitThreads();
    EXPECT_EQ(2u + 51u, Count(CAUGHT));
    EXPECT_EQ(1u, Count("log 3 Reconnect " + SEC + " failed, ret=-1 errno=74"));
    EXPECT_EQ(0, server_->UnregIDSEventReportHandlerImpl());
}

TEST_F(ReadLoop, TheLossOfAProcessManagerIsReportedInThreeHundredBytes) {
    const std::pair<std::string, std::string> names[] = {
        {PM, MANAGER}, {SEA, "sea_" + MANAGER}, {"", MANAGER}, {"sea:/res/pm/f", MANAGER}, {SEA + "x", MANAGER}};
    for (const auto& [file, name] : names) {
        std::string expected(300, '\0');
        expected.replace(0, 10, std::string("\x00\xA0\x03\x8C\x00\x00\xFF\xFF\x02\x01", 10));
        expected.replace(42, name.size(), name);
        ClearJournal();
        server_->ReportPmEvent(file);
        EXPECT_EQ(expected, std::string(reinterpret_cast<const char*>(&faultReport), 300));
        EXPECT_EQ(Text("memset_s(256, 0, 256) | strncpy_s(256, ", name, ", ", name.size(),
                       ") | check 3 | log 3 FTEReport begin, ", Report(name), " | MidFTEReport"),
                  Journal());
    }
    ClearJournal();
    Results("fte", {-2});
    server_->ReportPmEvent(PM);
    Results("strncpy_s", {34});
    server_->ReportPmEvent(SEA);
    Always("check", nullptr, 0);
    server_->ReportPmEvent(PM);
    EXPECT_EQ("log 3 FTEReport begin, " + Report(MANAGER) + " | MidFTEReport | " +
                  "log 3 PROCMGR FTEReport err res=0xFFFFFFFE, " + Report(MANAGER) +
                  " | log 3 ReportPmEvent strncpys_s failed. errno=34 pmName=sea_process-manager "
                  "EVENT_SPEC_SIZE_MAX=256 | MidFTEReport",
              Journal("log fte"));
}

}  // namespace recording

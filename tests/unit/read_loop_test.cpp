// The read thread: reading, classing failures, reconnecting, reporting a lost process manager.
#include <sys/prctl.h>

#include <csignal>
#include <set>

#include "tests/fakes/RecordingPlatform.h"

namespace recording {

const std::string MANAGER = "process-manager";
const std::string CAUGHT = "log 16 server catch signal=13";

static std::string Report(const std::string& name)
{
    return "eventId=0x8C03A000, severity=2, assertion=1, deviceId=65535, procName=" + name;
}

// A subscribed file, and the process that its loss means.
struct File {
    std::string name;
    std::string manager = "";
    EventType family = FAULT_EVENT;

    Bytes Record(const std::string& event) const
    {
        return Raw(family == SECURITY_EVENT ? 0x11 : 0x01, event);
    }
    std::string Told(const std::string& event) const
    {
        return (family == SECURITY_EVENT ? "security " : "device ") + event;
    }
};

const File SECURITY_FILE = {SEC, "", SECURITY_EVENT};

class ReadLoop : public LibraryTest {
protected:
    void Start(const File& file)
    {
        EXPECT_EQ(RESULT_OK, server_->StartSubscribeEvent({file.name}, file.family));
    }

    void Stop(const File& file)
    {
        EXPECT_EQ(RESULT_OK, server_->StopSubscribeEvent({file.name}, file.family));
    }

    // What follows in the journal when a read of the file fails with `error`; a record waits behind it.
    std::string AfterFailure(const File& file, int error)
    {
        const std::set<int> passing = {ETIMEDOUT, EAGAIN, EIO};
        const std::set<int> lost = {EPIPE, EBADMSG, EBADFD, EBADF};
        if (passing.count(error) != 0) {
            return file.Told("next");
        }
        if (lost.count(error) == 0) {
            return Text("log 3 ReadData IAMFastRead ", file.name, " failed, ret=-7 errno=", error);
        }
        if (!file.manager.empty()) {
            return "log 3 FTEReport begin, " + Report(file.manager) + " | MidFTEReport";
        }
        return Text("close(1000) | open(", file.name, ", 0) = 1000 | ", Reconnected(file.name, 1000), " | ",
                    file.Told("next"));
    }
};

TEST_F(ReadLoop, EveryFailureIsClassedByItsErrno)
{
    for (const File& file : {File{PM, MANAGER}, File{SEA, "sea_" + MANAGER}, File{ONE}, SECURITY_FILE}) {
        for (int error = 0; error <= 133; ++error) {
            SCOPED_TRACE(Text(file.name, " errno ", error));
            const std::string expected = AfterFailure(file, error);
            const bool readsOn = expected.find(file.Told("next")) != std::string::npos;
            Fail(file.name, error, nullptr, -7);
            if (readsOn) {
                Deliver(file.name, file.Record("next"));
            }
            Start(file);
            if (readsOn) {
                AwaitBlocked(file.name);
            } else {
                AwaitThreads();
            }
            EXPECT_EQ(Opened(file.name) + " | " + expected, Journal("open close sleep log fte deliver"));
            Stop(file);
            Journal();
        }
    }
}

TEST_F(ReadLoop, AReconnectionWithoutAnEntryMakesOne)
{
    server_->secEvtRunning_ = true;
    int fd = TakeNumber(SEC);
    EXPECT_TRUE(server_->TryReconnectServer(fd, SEC, SECURITY_EVENT));
    EXPECT_EQ(fd, server_->secEvtSrcMap_.at(SEC).fd);
    EXPECT_EQ("close(1000) | open(" + SEC + ", 0) = 1000", Journal("open close"));
    Stop(SECURITY_FILE);
}

TEST_F(ReadLoop, TheFlagEndsTheThreadWithoutAWord)
{
    const auto scenario = [&](const File& file, const std::string& journal) {
        Start(file);
        AwaitThreads();
        EXPECT_EQ(Opened(file.name) + journal, Journal("log fte deliver open close read"));
        server_->faultEvtRunning_ = server_->secEvtRunning_ = true;
        server_->StopSubscribeEvent({file.name}, FAULT_EVENT);
        server_->StopSubscribeEvent({file.name}, SECURITY_EVENT);
        Journal();
    };
    const Hook clear = [&] {
        server_->faultEvtRunning_ = server_->secEvtRunning_ = false;
        errno = EPIPE;
    };
    for (const File& file : {File{PM}, SECURITY_FILE}) {
        Next("prctl", clear);  // before the thread has read anything
        scenario(file, "");
        Fail(file.name, 0, clear);  // during a read that fails: no report, no reconnection
        scenario(file, " | read(1000) = -1");
        Deliver(file.name, file.Record("last"), clear);  // during one that succeeds: its record is delivered
        scenario(file, " | read(1000) = 362 | " + file.Told("last"));
    }
}

TEST_F(ReadLoop, TheBufferIsZeroBeforeEveryRecordAlsoAfterOneThatFailed)
{
    const std::string zeroed = " | memset_s(3960, 0, 3960)";
    const std::string failed = " | log 3 fault deserialize/callback failed, data read from " + SEC;
    for (const Bytes& record : {Raw(0x11, "good"), Bytes(3960, 0xFF), Bytes()}) {
        Deliver(SEC, record);
    }
    char name[16] = {};
    server_->idsEventReportCb = [&](const dsmi_event&) { prctl(PR_GET_NAME, name); };
    Start(SECURITY_FILE);
    AwaitBlocked(SEC);
    EXPECT_STREQ("Rd_dp:/res/iam/", name);
    EXPECT_EQ(Opened(SEC) + " | name Rd_" + SEC + zeroed + " | read(1000) = 362 | prctl 16" + zeroed +
                  " | read(1000) = 3960 | log 3 invalid header, header=0xff" + failed + zeroed +
                  " | read(1000) = 0 | log 3 deserialize data failed, header is null or size error" + failed + zeroed,
              Journal("open prctl memset_s read log deliver"));
    Stop(SECURITY_FILE);
}

TEST_F(ReadLoop, AThreadWithoutMemoryForItsBufferEndsWithAMessage)
{
    Next("begin", [] { heap.failing = 1; });
    Start(SECURITY_FILE);
    AwaitThreads();
    EXPECT_EQ(Opened(SEC) + " | log 3 unique point fail, errno=12 " + SEC, Journal("open log memset_s read"));
    Stop(SECURITY_FILE);
}

// Sent while the thread is blocked in a read, between a failed read and its classing, and in the pauses of a
// reconnection, which tries for five seconds; the first pause is cut short in the middle and slept to its end.
TEST_F(ReadLoop, ASigpipeDisturbsNeitherTheStreamNorErrnoNorTheFiveSecondsOfAReconnection)
{
    EXPECT_EQ(RESULT_OK, server_->RegIDSEventReportHandlerImpl(Teller("security")));
    AwaitBlocked(SEC);
    Journal();
    EXPECT_EQ(0, pthread_kill(blocked.at(SEC), SIGPIPE));
    Await(CAUGHT);
    Fail(SEC, EAGAIN, [] { raise(SIGPIPE); });
    Deliver(SEC, Raw(0x11, "on"));
    Await("security on");
    EXPECT_EQ(CAUGHT + " | " + CAUGHT + " | security on", Journal("log deliver close"));
    SetAbsent(SEC);
    const Hook signal = [] { raise(SIGPIPE); };
    Next("sleep", signal, EINTR);
    Always("sleep", signal);
    Fail(SEC, EBADMSG);
    AwaitThreads();
    const std::string open = " | open(" + SEC + ", 0) = -1 | sleep 100000 us | " + CAUGHT;
    std::string expected = "close(1000)" + open + " | sleep 50000 us | " + CAUGHT;
    for (int i = 1; i <= 50; ++i) {
        expected += open;
    }
    EXPECT_EQ(expected + GaveUp(SEC, EBADMSG), Journal("open close sleep log"));
    EXPECT_EQ(RESULT_OK, server_->UnregIDSEventReportHandlerImpl());
}

TEST_F(ReadLoop, TheLossOfAProcessManagerIsReportedInThreeHundredBytes)
{
    const std::pair<std::string, std::string> names[] = {
        {PM, MANAGER}, {SEA, "sea_" + MANAGER}, {"", MANAGER}, {"sea:/res/pm/f", MANAGER}, {SEA + "x", MANAGER}};
    for (const auto& [file, name] : names) {
        std::string expected(300, '\0');
        expected.replace(0, 10, std::string("\x00\xA0\x03\x8C\x00\x00\xFF\xFF\x02\x01", 10));
        expected.replace(42, name.size(), name);
        server_->ReportPmEvent(file);
        EXPECT_EQ(expected, std::string(reinterpret_cast<const char*>(&faultReport), 300));
        EXPECT_EQ(Text("memset_s(256, 0, 256) | strncpy_s(256, ", name, ", ", name.size(),
                       ") | check 3 | log 3 FTEReport begin, ", Report(name), " | MidFTEReport"),
                  Journal());
    }
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

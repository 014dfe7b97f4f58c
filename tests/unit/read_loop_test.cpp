// The read thread: reading, classing failures, reconnecting, reporting a lost process manager.
#include <sys/prctl.h>

#include <csignal>
#include <set>

#include "tests/fakes/RecordingPlatform.h"

namespace recording {

const std::string MANAGER = "process-manager";

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
            Next(file.name, Failure(error));
            if (readsOn) {
                Next(file.name, Success(file.Record("next")));
            }
            Start(file);
            Await(readsOn ? file.Told("next") : "end");
            EXPECT_EQ(Opened(file.name) + " | " + expected, Journal("open close sleep log fte deliver"));
            Stop(file);
            Journal();
        }
    }
}

TEST_F(ReadLoop, AReconnectionWithoutAnEntryMakesOne)
{
    server_->secEvtRunning_ = true;
    int fd = Open(SEC);
    EXPECT_TRUE(server_->TryReconnectServer(fd, SEC, SECURITY_EVENT));
    EXPECT_EQ(fd, server_->secEvtSrcMap_.at(SEC).fd);
    EXPECT_EQ("close(1000) | open(" + SEC + ", 0) = 1000", Journal("open close"));
    Stop(SECURITY_FILE);
}

TEST_F(ReadLoop, TheBufferIsZeroBeforeEveryRecordAlsoAfterOneThatFailed)
{
    const std::string zeroed = " | memset_s(3960, 0, 3960) | read(1000)";
    const std::string failed = " | log 3 fault deserialize/callback failed, data read from " + SEC;
    for (const Bytes& record : {Raw(0x11, "good"), Bytes(3960, 0xFF), Bytes()}) {
        Next(SEC, Success(record));
    }
    char name[16] = {};
    server_->idsEventReportCb = [&](const dsmi_event&) { prctl(PR_GET_NAME, name); };
    Start(SECURITY_FILE);
    Await("read(", 4);
    EXPECT_STREQ("Rd_dp:/res/iam/", name);
    EXPECT_EQ(Opened(SEC) + " | name Rd_" + SEC + zeroed + " | prctl 16" + zeroed +
                  " | log 3 invalid header, header=0xff" + failed + zeroed +
                  " | log 3 deserialize data failed, header is null or size error" + failed + zeroed,
              Journal("open prctl memset_s read log deliver"));
    Stop(SECURITY_FILE);
}

TEST_F(ReadLoop, AThreadWithoutMemoryForItsBufferEndsWithAMessage)
{
    Next("prctl", {[] { heap.failing = 1; }});
    Start(SECURITY_FILE);
    Await("end");
    EXPECT_EQ(Opened(SEC) + " | log 3 unique point fail, errno=12 " + SEC, Journal("open log memset_s read"));
    Stop(SECURITY_FILE);
}

// Sent between a failed read and its classing, and in the pauses of a reconnection, which tries for five seconds; the
// first pause is cut short in the middle and slept to its end.
TEST_F(ReadLoop, ASigpipeDisturbsNeitherErrnoNorTheFiveSecondsOfAReconnection)
{
    const Hook signal = [] { raise(SIGPIPE); };
    Next(SEC, Failure(EAGAIN, signal));
    Next(SEC, Failure(EBADMSG));
    Next("open " + SEC, {});
    Always("open " + SEC, {nullptr, -1});
    Next("sleep", {signal, EINTR});
    Always("sleep", {signal});
    EXPECT_EQ(RESULT_OK, server_->RegIDSEventReportHandlerImpl(nullptr));
    Await("end");
    const std::string caught = " | log 16 server catch signal=13";
    const std::string open = " | open(" + SEC + ", 0) = -1 | sleep 100000 us" + caught;
    std::string expected = Opened(SEC) + caught + " | close(1000)" + open + " | sleep 50000 us" + caught;
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
    Always("check", {nullptr, 0});
    server_->ReportPmEvent(PM);
    EXPECT_EQ("log 3 FTEReport begin, " + Report(MANAGER) + " | MidFTEReport | " +
                  "log 3 PROCMGR FTEReport err res=0xFFFFFFFE, " + Report(MANAGER) +
                  " | log 3 ReportPmEvent strncpys_s failed. errno=34 pmName=sea_process-manager "
                  "EVENT_SPEC_SIZE_MAX=256 | MidFTEReport",
              Journal("log fte"));
}

}  // namespace recording

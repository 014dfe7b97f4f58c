// The read thread: reading, classing failures, reconnecting, reporting a lost process manager.
#include <fcntl.h>
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

class ReadLoop : public LibraryTest {};

TEST_F(ReadLoop, EveryFailureIsClassedByItsErrno)
{
    struct File {
        std::string name;
        EventType family;
        std::string told;  // of a record behind the failure
        std::string afterLoss;
    };
    const auto reconnected = [](const std::string& name) {
        return "close(1000) | open(" + name + ", 0) = 1000 | " + Reconnected(name, 1000) + " | ";
    };
    const File files[] = {
        {PM, FAULT_EVENT, "device next", "log 3 FTEReport begin, " + Report(MANAGER) + " | MidFTEReport"},
        {SEA, FAULT_EVENT, "device next", "log 3 FTEReport begin, " + Report("sea_" + MANAGER) + " | MidFTEReport"},
        {ONE, FAULT_EVENT, "device next", reconnected(ONE) + "device next"},
        {SEC, SECURITY_EVENT, "security next", reconnected(SEC) + "security next"},
    };
    const std::set<int> passing = {ETIMEDOUT, EAGAIN, EIO};
    const std::set<int> lost = {EPIPE, EBADMSG, EBADFD, EBADF};
    for (const File& file : files) {
        for (int error = 0; error <= 133; ++error) {
            std::string expected = Text("log 3 ReadData IAMFastRead ", file.name, " failed, ret=-7 errno=", error);
            if (passing.count(error) != 0) {
                expected = file.told;
            } else if (lost.count(error) != 0) {
                expected = file.afterLoss;
            }
            Next(file.name, Failure(error));
            const bool readsOn = expected.find(file.told) != std::string::npos;
            if (readsOn) {
                Next(file.name, Success(Raw(file.family == SECURITY_EVENT ? 0x11 : 0x01, "next")));
            }
            server_->StartSubscribeEvent({file.name}, file.family);
            Await(readsOn ? file.told : "end");
            EXPECT_EQ(Opened(file.name) + " | " + expected, Journal("open close sleep log fte deliver"));
            server_->StopSubscribeEvent({file.name}, file.family);
            Journal();
        }
    }
}

TEST_F(ReadLoop, AReconnectionWithoutAnEntryMakesOne)
{
    server_->secEvtRunning_ = true;
    int fd = open(SEC.c_str(), O_RDWR);
    EXPECT_TRUE(server_->TryReconnectServer(fd, SEC, SECURITY_EVENT));
    EXPECT_EQ(fd, server_->secEvtSrcMap_.at(SEC).fd);
    EXPECT_EQ("open(" + SEC + ", 2) = 1000 | close(1000) | open(" + SEC + ", 0) = 1000", Journal("open close"));
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
    server_->StartSubscribeEvent({SEC}, SECURITY_EVENT);
    Await("read(", 4);
    EXPECT_STREQ("Rd_dp:/res/iam/", name);
    EXPECT_EQ(Opened(SEC) + " | name Rd_" + SEC + zeroed + " | prctl 16" + zeroed +
                  " | log 3 invalid header, header=0xff" + failed + zeroed +
                  " | log 3 deserialize data failed, header is null or size error" + failed + zeroed,
              Journal("open prctl memset_s read log deliver"));
}

TEST_F(ReadLoop, AThreadWithoutMemoryForItsBufferEndsWithAMessage)
{
    Next("prctl", {[] { heap.failing = 1; }});
    server_->StartSubscribeEvent({SEC}, SECURITY_EVENT);
    Await("end");
    EXPECT_EQ(Opened(SEC) + " | log 3 unique point fail, errno=12 " + SEC, Journal("open log memset_s read"));
}

// Sent between a failed read and its classing, and in the pauses of a reconnection, which tries for five seconds; the
// first pause is cut short in the middle and slept to its end.
TEST_F(ReadLoop, ASigpipeDisturbsNeitherErrnoNorTheFiveSecondsOfAReconnection)
{
    const Hook signal = [] { raise(SIGPIPE); };
    Next(SEC, Failure(EAGAIN, signal));
    Next(SEC, Failure(EBADMSG));
    Next("open " + SEC, {});
    Next("open " + SEC, {nullptr, -1}, 60);
    Next("sleep", {signal, EINTR});
    Next("sleep", {signal}, 60);
    server_->RegIDSEventReportHandlerImpl(nullptr);
    Await("end");
    const std::string caught = " | log 16 server catch signal=13";
    const std::string open = " | open(" + SEC + ", 0) = -1 | sleep 100000 us" + caught;
    std::string expected = Opened(SEC) + caught + " | close(1000)" + open + " | sleep 50000 us" + caught;
    for (int i = 1; i <= 50; ++i) {
        expected += open;
    }
    EXPECT_EQ(expected + GaveUp(SEC, EBADMSG), Journal("open close sleep log"));
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
    EXPECT_EQ("log 3 FTEReport begin, " + Report(MANAGER) + " | MidFTEReport | " +
                  "log 3 PROCMGR FTEReport err res=0xFFFFFFFE, " + Report(MANAGER) +
                  " | log 3 ReportPmEvent strncpys_s failed. errno=34 pmName=sea_process-manager "
                  "EVENT_SPEC_SIZE_MAX=256",
              Journal("log fte"));
}

}  // namespace recording

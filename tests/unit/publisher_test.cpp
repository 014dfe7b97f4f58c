// The publisher: its registrations, the readers it follows, the records it publishes.
#include "publisher/GrpOwnerLogLevel.h"
#include "tests/fakes/RecordingPlatform.h"

namespace recording {

using Status = Client::ServerStatus;

const std::string SERVICE_BEGIN =
    "syslog 4 IAMRegisterRTService begin. serviceName=" + PM + " | IAMRegisterRTService(" + PM + ", 500 0 10 1)";
const std::string SERVICE_SUCCESS = SERVICE_BEGIN + " | syslog 4 IAMRegisterRTService success. serviceName=" + PM;
const std::string POOL_BEGIN = "syslog 6 IAMShmRegisterPoolWithConfig begin, fileName=" + PM +
                               " | IAMShmRegisterPoolWithConfig(" + PM + ", 4055040, 1000, pool)";

// A reader that comes or goes meanwhile waits until the lock is released.
static std::string UnderLock(const std::string& calls)
{
    return "lock 1 | " + calls + (calls.empty() ? "" : " | ") + "unlock";
}

// The calls of a publish on the reader with this handle.
static std::string Enqueued(uint64_t handle, const std::string& record = "abc")
{
    return Text("malloc(pool, ", record.size(), ", block) | write(block, ", record, ", 0) | enqueue(", handle,
                ", package of pool, block, 1)");
}

class Publisher : public LibraryTest {
protected:
    Publisher()
    {
        SetReader(Status::NEVER_OPENED, nullptr);
    }

    static void SetReader(Status status, IAMRTFSMgrFile* file)
    {
        Client::serverStatus_ = status;
        Client::iamRtfsFile_ = file;
    }

    IAMRTFSMgrFile reader_ = {0xBAD, "A", 0xBAD, 1};
    std::unique_ptr<Client> client_ = std::make_unique<Client>();
};

TEST_F(Publisher, LevelsHaveTheirPriorities)
{
    const int priorities[] = {6, 7, 6, 4, 3, 5, 6, 6};  // of the levels from -1 on
    for (int level = -1; level < 7; ++level) {
        EXPECT_EQ(priorities[level + 1], ProcMgr::GetSyslogLevel(static_cast<ProcMgr::GrpOwnerLogLevel>(level)));
    }
}

// The service is registered without the lock, the pool under it; the destructor takes none.
TEST_F(Publisher, RegistrationHandsOverItsRecordsAndTheDestructorOnlyAPoolThatExists)
{
    const auto check = [&](const std::vector<int64_t>& results, int result, const std::string& journal) {
        Results("iam", results);
        EXPECT_EQ(result, client_->RegisterResService(PM));
        client_ = std::make_unique<Client>();
        EXPECT_EQ(journal, Journal());
    };
    const std::string poolSuccess = " | syslog 6 IAMShmRegisterPoolWithConfig success, fileName=dp:/res/pm/fm";
    const std::string poolFailed = " | syslog 3 IAMShmRegisterPoolWithConfig failed, fileName=dp:/res/pm/fm, ret=-9";
    check({5, 7, -1}, RESULT_OK, SERVICE_SUCCESS + " | " + UnderLock(POOL_BEGIN + poolSuccess) + " | destroy(pool)");
    check({-4}, RESULT_SERVICE_FAILED, SERVICE_BEGIN + " | syslog 3 IAMRegisterRTService failed err=-4");
    check({0, -9}, RESULT_POOL_FAILED, SERVICE_SUCCESS + " | " + UnderLock(POOL_BEGIN + poolFailed));
}

// The newest opener is current; only its own close ends that.
TEST_F(Publisher, RecordsGoToTheNewestReaderUntilItCloses)
{
    IAMRTFSMgrFile nameless = {0xBAD, nullptr, 0xBAD, 2};
    const std::string opens = "syslog 4 MyOpen is called, A";
    const std::string closes = "syslog 4 MyClose is called, A";
    const auto check = [&](IAMFileNotification notify, IAMRTFSMgrFile* file, const std::string& notified,
                           const std::string& published) {
        EXPECT_EQ(file == nullptr ? -1 : 0, notify(file));
        EXPECT_EQ(RESULT_OK, client_->ReportEvent("abc", 3));
        EXPECT_EQ(UnderLock(notified) + " | " + UnderLock(published), Journal());
    };
    check(Client::MyOpen, nullptr, "", "");
    check(Client::MyOpen, &reader_, opens, Enqueued(1));
    check(Client::MyOpen, &nameless, "", Enqueued(2));
    check(Client::MyClose, nullptr, "", Enqueued(2));
    check(Client::MyClose, &reader_, closes, Enqueued(2));
    check(Client::MyOpen, &reader_, opens, Enqueued(1));
    check(Client::MyClose, &nameless, "", Enqueued(1));
    check(Client::MyOpen, nullptr, "", Enqueued(1));
    check(Client::MyClose, &reader_, closes, "");
    check(Client::MyOpen, &nameless, "", Enqueued(2));
    check(Client::MyClose, &nameless, "", "");
}

TEST_F(Publisher, EveryOutcomeOfAPublishHasItsCallsItsLogAndItsCode)
{
    const auto check = [&](const char* data, unsigned int size, int result, const std::string& calls) {
        const int64_t before = heap.allocations;
        EXPECT_EQ(result, client_->ReportEvent(data, size));
        EXPECT_EQ(before, heap.allocations);
        EXPECT_EQ(UnderLock(calls), Journal());
    };
    const std::string tooBig = " is bigger than 3960";
    const std::string bufSize = "syslog 3 ReportEvent: fault event bufSize=";
    const std::string nullPointer = "syslog 3 ReportEvent: null pointer";
    const std::string largest = "L" + std::string(3958, '\0') + "R";
    for (const Status idle : {Status::NEVER_OPENED, Status::CLOSED}) {
        SetReader(idle, nullptr);
        check(nullptr, 4'000'000'000, RESULT_OK, "");
    }
    SetReader(Status::OPEN, &reader_);
    check("", 0, RESULT_OK, Enqueued(1, ""));
    check(largest.data(), 3960, RESULT_OK, Enqueued(1, largest));
    check(largest.data(), 3961, RESULT_WRONG_SIZE, bufSize + "3961" + tooBig);
    check("", 4'000'000'000, RESULT_WRONG_SIZE, bufSize + "4000000000" + tooBig);
    check(nullptr, 3961, RESULT_NULL_POINTER, nullPointer);
    SetReader(Status::OPEN, nullptr);
    check("", 3961, RESULT_NULL_POINTER, nullPointer);

    const auto checkFailure = [&](const std::vector<int64_t>& results, int result, const std::string& calls) {
        SetReader(Status::OPEN, &reader_);
        Results("iam", results);
        check("abc", 3, result, calls);
        check("abc", 3, RESULT_OK, Enqueued(1));
    };
    const std::string alloc = "malloc(pool, 3, block)";
    const std::string allocFailed = alloc + " | syslog 3 ReportEvent: IAMShmHandleMalloc block failed";
    const std::string writeFailed =
        alloc + " | write(block, abc, 0) | syslog 3 ReportEvent: memcpy_s write block failed, err=";
    const std::string enqueueFailed = Enqueued(1) + " | syslog 3 ReportEvent: IAMRTDataEnqueue failed, err=";
    const std::string free = " | free(pool, block)";
    const std::string freeFailed = free + " | syslog 3 ReportEvent: IAMShmFree failed";
    checkFailure({-1}, RESULT_NO_BLOCK, allocFailed);
    checkFailure({1}, RESULT_NO_BLOCK, allocFailed);
    checkFailure({0, -5}, RESULT_WRITE_FAILED, writeFailed + "-5" + free);
    checkFailure({0, 5, 1}, RESULT_WRITE_FAILED, writeFailed + "5" + freeFailed);
    checkFailure({0, 0, -6}, RESULT_ENQUEUE_FAILED, enqueueFailed + "-6" + free);
    checkFailure({0, 0, 6, -1}, RESULT_ENQUEUE_FAILED, enqueueFailed + "6" + freeFailed);
}

// At exit the publisher's destructor destroys the pool, during which a reader may close. Its notification takes the
// lock and logs: the level table must still be there.
TEST_F(Publisher, AReaderMayCloseWhileThePublisherEnds)
{
    ExpectAtExit("destroy(pool) | lock 1 | syslog 4 MyClose is called, A | unlock", [&] {
        static IAMRTFSMgrFile reader = reader_;
        ReportEventClient::GetInstance().RegisterResService(PM);
        Client::MyOpen(&reader);
        Journal();
        Next("iam", {[] {
                 const Offstage onstage(LIBRARY);
                 Client::MyClose(&reader);
             }});
    });
}

}  // namespace recording

// The publisher: its registrations, the readers it follows, the records it publishes.
#include "publisher/GrpOwnerLogLevel.h"
#include "tests/fakes/RecordingPlatform.h"

namespace recording {

using Status = Client::ServerStatus;

const std::string SERVICE_BEGIN =
    "syslog 4 IAMRegisterRTService begin. serviceName=" + PM + " | IAMRegisterRTService(" + PM + ", 500 0 10 1)";
const std::string POOL_BEGIN = SERVICE_BEGIN + " | syslog 4 IAMRegisterRTService success. serviceName=" + PM +
                               " | syslog 6 IAMShmRegisterPoolWithConfig begin, fileName=" + PM +
                               " | IAMShmRegisterPoolWithConfig(" + PM + ", 4055040, 1000, pool)";

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

    int Publish(const std::string& record)
    {
        return client_->ReportEvent(record.data(), static_cast<unsigned int>(record.size()));
    }

    // The calls of a publish on the reader with this handle.
    static std::string Enqueued(uint64_t handle, const std::string& record = "abc")
    {
        return Text("malloc(pool, ", record.size(), ", block) | write(block, ", record, ", 0) | enqueue(", handle,
                    ", package of pool, block, 1)");
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
    const auto check = [&](const std::vector<int64_t>& results, int result, int locksTaken,
                           const std::string& journal) {
        Results("iam", results);
        client_ = std::make_unique<Client>();
        int locks = 0;
        Always("lock", [&] { ++locks; });
        EXPECT_EQ(result, client_->RegisterResService(PM));
        client_.reset();
        Always("lock", nullptr);
        EXPECT_EQ(locksTaken, locks);
        EXPECT_EQ(journal, Journal());
    };
    const std::string success = " | syslog 6 IAMShmRegisterPoolWithConfig success, fileName=dp:/res/pm/fm";
    check({5, 7, -1}, RESULT_OK, 1, POOL_BEGIN + success + " | destroy(pool)");
    check({-4}, RESULT_SERVICE_FAILED, 0, SERVICE_BEGIN + " | syslog 3 IAMRegisterRTService failed err=-4");
    check({0, -9}, RESULT_POOL_FAILED, 1,
          POOL_BEGIN + " | syslog 3 IAMShmRegisterPoolWithConfig failed, fileName=dp:/res/pm/fm, ret=-9");
}

// The newest opener is current; only its own close ends that.
TEST_F(Publisher, RecordsGoToTheNewestReaderUntilItCloses)
{
    IAMRTFSMgrFile nameless = {0xBAD, nullptr, 0xBAD, 2};
    const std::string opens = "syslog 4 MyOpen is called, A | ";
    const std::string closes = "syslog 4 MyClose is called, A | ";
    const auto check = [&](IAMFileNotification notify, IAMRTFSMgrFile* file, const std::string& journal) {
        EXPECT_EQ(file == nullptr ? -1 : 0, notify(file));
        EXPECT_EQ(RESULT_OK, Publish("abc"));
        EXPECT_EQ(journal, Journal());
    };
    check(Client::MyOpen, nullptr, "");
    check(Client::MyOpen, &reader_, opens + Enqueued(1));
    check(Client::MyOpen, &nameless, Enqueued(2));
    check(Client::MyClose, nullptr, Enqueued(2));
    check(Client::MyClose, &reader_, closes + Enqueued(2));
    check(Client::MyOpen, &reader_, opens + Enqueued(1));
    check(Client::MyClose, &nameless, Enqueued(1));
    check(Client::MyOpen, nullptr, Enqueued(1));
    check(Client::MyClose, &reader_, "syslog 4 MyClose is called, A");
    check(Client::MyOpen, &nameless, Enqueued(2));
    check(Client::MyClose, &nameless, "");
}

TEST_F(Publisher, EveryOutcomeOfAPublishHasItsCallsItsLogAndItsCode)
{
    const std::string alloc = "malloc(pool, 3, block)";
    const std::string write = alloc + " | write(block, abc, 0)";
    const std::string free = " | free(pool, block)";
    const std::string freeFailed = free + " | syslog 3 ReportEvent: IAMShmFree failed";
    const std::string allocFailed = " | syslog 3 ReportEvent: IAMShmHandleMalloc block failed";
    const std::string writeFailed = " | syslog 3 ReportEvent: memcpy_s write block failed, err=";
    const std::string enqueueFailed = " | syslog 3 ReportEvent: IAMRTDataEnqueue failed, err=";
    const auto check = [&](const std::vector<int64_t>& results, int result, const std::string& journal) {
        Results("iam", results);
        EXPECT_EQ(result, Publish("abc"));
        EXPECT_EQ(journal, Journal());
        EXPECT_EQ(Status::OPEN, Client::serverStatus_);
        EXPECT_EQ(&reader_, Client::iamRtfsFile_);
    };
    SetReader(Status::OPEN, &reader_);
    check({}, RESULT_OK, Enqueued(1));
    check({-1}, RESULT_NO_BLOCK, alloc + allocFailed);
    check({1}, RESULT_NO_BLOCK, alloc + allocFailed);
    check({0, -5}, RESULT_WRITE_FAILED, write + writeFailed + "-5" + free);
    check({0, 5, 1}, RESULT_WRITE_FAILED, write + writeFailed + "5" + freeFailed);
    check({0, 0, -6}, RESULT_ENQUEUE_FAILED, Enqueued(1) + enqueueFailed + "-6" + free);
    check({0, 0, 6, -1}, RESULT_ENQUEUE_FAILED, Enqueued(1) + enqueueFailed + "6" + freeFailed);
    check({}, RESULT_OK, Enqueued(1));
}

TEST_F(Publisher, ARecordIsPublishedOrRefusedByItsSize)
{
    const std::string largest = "L" + std::string(3958, '\0') + "R";
    for (const Status idle : {Status::NEVER_OPENED, Status::CLOSED}) {
        SetReader(idle, nullptr);
        EXPECT_EQ(RESULT_OK, client_->ReportEvent(nullptr, 4'000'000'000)) << "not even the arguments are looked at";
    }
    EXPECT_EQ("", Journal());
    SetReader(Status::OPEN, &reader_);
    const int64_t before = heap.allocations;
    EXPECT_EQ(RESULT_OK, Publish(largest));
    EXPECT_EQ(before, heap.allocations);
    EXPECT_EQ(RESULT_OK, client_->ReportEvent("", 0));
    EXPECT_EQ(Enqueued(1, largest) + " | " + Enqueued(1, ""), Journal());
    EXPECT_EQ(RESULT_WRONG_SIZE, Publish(largest + "x"));
    EXPECT_EQ(RESULT_WRONG_SIZE, client_->ReportEvent("", 4'000'000'000));
    EXPECT_EQ(RESULT_NULL_POINTER, client_->ReportEvent(nullptr, 3961));
    SetReader(Status::OPEN, nullptr);
    EXPECT_EQ(RESULT_NULL_POINTER, Publish(largest + "x"));
    EXPECT_EQ(
        "syslog 3 ReportEvent: fault event bufSize=3961 is bigger than 3960 | "
        "syslog 3 ReportEvent: fault event bufSize=4000000000 is bigger than 3960 | "
        "syslog 3 ReportEvent: null pointer | syslog 3 ReportEvent: null pointer",
        Journal());
}

// A notification waits until the publish, or the registration of the pool, that it meets is over.
TEST_F(Publisher, ReadersComeAndGoBetweenRecordsNeverDuringOne)
{
    std::unique_ptr<Background> notification;
    const auto during = [&](int callsBefore, IAMFileNotification notify, Status statusMeanwhile) {
        for (int call = 0; call < callsBefore; ++call) {
            Next("iam");
        }
        Next("iam", [&, notify, statusMeanwhile] {
            notification = std::make_unique<Background>([&, notify] { notify(&reader_); });
            Await("lock wait");
            EXPECT_EQ(statusMeanwhile, Client::serverStatus_);
        });
    };
    Next("iam", [] { Background([] { Client::MyClose(nullptr); }); });  // the service's registration: does not wait
    during(0, Client::MyOpen, Status::NEVER_OPENED);
    EXPECT_EQ(RESULT_OK, client_->RegisterResService(PM));
    for (int call = 0; call < 3; ++call) {  // during the allocation, the write, the enqueue
        notification->Join();
        EXPECT_EQ(Status::OPEN, Client::serverStatus_);
        Journal();
        during(call, Client::MyClose, Status::OPEN);
        EXPECT_EQ(RESULT_OK, Publish("abc"));
        notification->Join();
        EXPECT_EQ(Enqueued(1), Journal("iam"));
        EXPECT_EQ(Status::CLOSED, Client::serverStatus_);
        Client::MyOpen(&reader_);
    }
}

// At exit the publisher's destructor destroys the pool, during which, and after which, a reader may close. Its
// notification takes the lock and logs: the level table must still be there.
TEST_F(Publisher, AReaderMayCloseWhileAndAfterThePublisherEnds)
{
    ExpectAtExit("destroy(pool) | syslog 4 MyClose is called, A", [&] {
        static IAMRTFSMgrFile reader = reader_;
        ReportEventClient::GetInstance().RegisterResService(PM);
        Client::MyOpen(&reader);
        Journal();
        Next("iam", [] { Background([] { Client::MyClose(&reader); }); });
    });
    Client::MyOpen(&reader_);
    client_.reset();
    EXPECT_EQ(Status::OPEN, Client::serverStatus_);
    EXPECT_EQ(0, Client::MyClose(&reader_));
    EXPECT_EQ(Status::CLOSED, Client::serverStatus_);
}

}  // namespace recording

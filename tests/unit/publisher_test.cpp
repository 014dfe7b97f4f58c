// The publisher: its registrations, the readers it follows, the records it publishes.
#include <set>

#include "publisher/GrpOwnerLogLevel.h"
#include "tests/fakes/RecordingPlatform.h"

namespace recording {

using Client = ProcMgr::ReportEventClientImpl;

const std::string SERVICE_BEGIN =
    "syslog 4 IAMRegisterRTService begin. serviceName=" + PM + " | IAMRegisterRTService(" + PM + ", 500 0 10 1)";
const std::string POOL_BEGIN = SERVICE_BEGIN + " | syslog 4 IAMRegisterRTService success. serviceName=" + PM +
                               " | syslog 6 IAMShmRegisterPoolWithConfig begin, fileName=" + PM +
                               " | IAMShmRegisterPoolWithConfig(" + PM + ", 4055040, 1000, pool)";

class Publisher : public LibraryTest, public ProcMgr::ClientTestAccess {
protected:
    Publisher()
    {
        Forget();
    }

    static void Forget()
    {
        status = 0, currentFile = nullptr;
    }

    int Publish(const std::string& record)
    {
        return client_->ReportEvent(record.data(), static_cast<unsigned int>(record.size()));
    }

    IAMRTFSMgrFile reader_ = {0xBAD, "A", 0xBAD, 1};
    IAMRTFSMgrFile nameless_ = {0xBAD, nullptr, 0xBAD, 2};
    std::unique_ptr<Client> client_ = std::make_unique<Client>();
};

TEST_F(Publisher, LevelsHaveTheirPriorities)
{
    for (int level = -1; level < 8; ++level) {
        EXPECT_EQ("676435666"[level + 1] - '0', ProcMgr::GetSyslogLevel(static_cast<ProcMgr::GrpOwnerLogLevel>(level)));
    }
}

TEST_F(Publisher, RegistrationHandsOverItsRecordsAndTheDestructorOnlyAPoolThatExists)
{
    const auto check = [&](const std::vector<int64_t>& results, int result, const std::string& journal) {
        Results("iam", results);
        client_ = std::make_unique<Client>();
        int locks = 0;  // the service is registered without the lock, the pool under it; the destructor takes none
        Always("lock", [&] { ++locks; });
        EXPECT_EQ(result, client_->RegisterResService(PM));
        client_.reset();
        Always("lock", nullptr);
        EXPECT_EQ(result == 0xF10207 ? 0 : 1, locks);
        EXPECT_EQ(journal, Journal());
    };
    const std::string success =
        POOL_BEGIN + " | syslog 6 IAMShmRegisterPoolWithConfig success, fileName=dp:/res/pm/fm | destroy(pool)";
    check({0, 0}, 0, success);
    check({5, 7, -1}, 0, success);
    check({-4}, 0xF10207, SERVICE_BEGIN + " | syslog 3 IAMRegisterRTService failed err=-4");
    check({0, -9}, 0xF10208,
          POOL_BEGIN + " | syslog 3 IAMShmRegisterPoolWithConfig failed, fileName=dp:/res/pm/fm, ret=-9");
}

// The newest opener is current; only its own close ends that, in whatever order four readers come and go.
TEST_F(Publisher, RecordsGoToTheNewestReaderUntilItCloses)
{
    IAMRTFSMgrFile readers[] = {{0, "reader", 0, 0}, {0, "reader", 0, 1}, {0, nullptr, 0, 2}, {0, "reader", 0, 3}};
    std::vector<int> order = {0, 0, 1, 1, 2, 2, 3, 3};  // the first of a pair opens, the second closes
    do {
        Forget();
        enqueued.clear();
        std::map<uint64_t, Names> expected;
        std::set<IAMRTFSMgrFile*> open;
        IAMRTFSMgrFile* current = nullptr;
        std::string told;
        for (const int index : order) {
            IAMRTFSMgrFile* const reader = &readers[index];
            const bool opens = open.insert(reader).second;
            EXPECT_EQ(0, opens ? Client::MyOpen(reader) : Client::MyClose(reader));
            EXPECT_EQ(-1, Client::MyOpen(nullptr));  // changes nothing, like the next
            EXPECT_EQ(-1, Client::MyClose(nullptr));
            current = opens ? reader : current == reader ? nullptr : current;
            EXPECT_EQ(0, Publish("r"));
            if (current != nullptr) {
                expected[current->dataHandle].push_back("r");
            }
            if (reader->name != nullptr) {
                told += Text(told.empty() ? "" : " | ", "syslog 4 My", opens ? "Open" : "Close", " is called, reader");
            }
        }
        ASSERT_EQ(expected, enqueued);
        ASSERT_EQ(told, Journal("syslog"));
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(Publisher, EveryOutcomeOfAPublishHasItsCallsItsLogAndItsCode)
{
    const std::string alloc = "malloc(pool, 3, block)";
    const std::string write = alloc + " | write(block, 3, 0)";
    const std::string enqueue = write + " | enqueue(2, package of pool, block, 1)";
    const std::string free = " | free(pool, block)";
    const std::string freeFailed = free + " | syslog 3 ReportEvent: IAMShmFree failed";
    const std::string allocFailed = " | syslog 3 ReportEvent: IAMShmHandleMalloc block failed";
    const std::string writeFailed = " | syslog 3 ReportEvent: memcpy_s write block failed, err=";
    const std::string enqueueFailed = " | syslog 3 ReportEvent: IAMRTDataEnqueue failed, err=";
    for (const int idle : {0, 2}) {  // nobody reads: not even the arguments are looked at
        status = idle;
        EXPECT_EQ(0, client_->ReportEvent(nullptr, 4'000'000'000));
    }
    Client::MyOpen(&nameless_);
    EXPECT_EQ("", Journal());
    const auto check = [&](const std::vector<int64_t>& results, int result, const std::string& journal) {
        Results("iam", results);
        EXPECT_EQ(result, Publish("abc"));
        EXPECT_EQ(journal, Journal());
        EXPECT_EQ(1, status);
        EXPECT_EQ(&nameless_, currentFile);
    };
    check({}, 0, enqueue);
    check({-1}, 0xF10209, alloc + allocFailed);
    check({1}, 0xF10209, alloc + allocFailed);
    check({0, -5}, 0xF1020A, write + writeFailed + "-5" + free);
    check({0, 5, 1}, 0xF1020A, write + writeFailed + "5" + freeFailed);
    check({0, 0, -6}, 0xF1020B, enqueue + enqueueFailed + "-6" + free);
    check({0, 0, 6, -1}, 0xF1020B, enqueue + enqueueFailed + "6" + freeFailed);
    check({}, 0, enqueue);
    const std::string largest = "L" + std::string(3958, '\0') + "R";
    EXPECT_EQ(0, Publish(largest));
    EXPECT_EQ(0, client_->ReportEvent("", 0));
    EXPECT_EQ((Names{"abc", "abc", largest, ""}), enqueued[2]);
    const int64_t before = heap.allocations;
    for (int i = 0; i < 1000; ++i) {
        Publish(largest);
    }
    EXPECT_EQ(before, heap.allocations);
    EXPECT_EQ("", Journal("syslog"));
    EXPECT_EQ(0xF10205, Publish(largest + "x"));
    EXPECT_EQ(0xF10205, client_->ReportEvent("", 4'000'000'000));
    EXPECT_EQ(0xF10204, client_->ReportEvent(nullptr, 3961));
    currentFile = nullptr;
    EXPECT_EQ(0xF10204, Publish(largest + "x"));
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
    std::atomic<bool> done{false};
    const auto during = [&](int call, IAMFileNotification notify, int statusMeanwhile) {
        for (int before = 0; before < call; ++before) {
            Next("iam", nullptr);
        }
        Next("iam", [&, notify, statusMeanwhile] {
            done = false;
            Journal();
            notification = std::make_unique<Background>([&, notify] { notify(&reader_), done = true; });
            AwaitCondition("the lock", [&] { return done || Count("lock wait") > 0; });
            EXPECT_EQ(statusMeanwhile, status);
        });
    };
    Next("iam", [] { Background([] { Client::MyClose(nullptr); }); });  // does not wait
    during(0, Client::MyOpen, 0);
    EXPECT_EQ(0, client_->RegisterResService(PM));
    for (int call = 0; call < 3; ++call) {  // during the allocation, the write, the enqueue
        notification->Join();
        EXPECT_EQ(1, status);
        during(call, Client::MyClose, 1);
        EXPECT_EQ(0, Publish(Text(call)));
        notification->Join();
        EXPECT_EQ(2, status);
        EXPECT_EQ(0, Publish("dropped"));
        Client::MyOpen(&reader_);
    }
    EXPECT_EQ((Names{"0", "1", "2"}), enqueued[1]);
    Next("iam", nullptr);
    Next("iam", [&] { reader_.dataHandle = 7; });  // the handle is the reader's at the time of the enqueue
    EXPECT_EQ(0, Publish("moved"));
    EXPECT_EQ(Names{"moved"}, enqueued[7]);
}

TEST_F(Publisher, EightThreadsPublishEachRecordOnceInTheOrderOfTheirCalls)
{
    constexpr size_t RECORDS = 250;
    std::atomic<int> publishers{8};
    std::deque<Background> callers;
    Client::MyOpen(&reader_);
    for (char thread = 'a'; thread <= 'h'; ++thread) {
        callers.emplace_back([&, thread] {
            for (size_t size = 1; size <= RECORDS; ++size) {
                EXPECT_EQ(0, Publish(std::string(size, thread)));
            }
            --publishers;
        });
    }
    while (publishers > 0) {  // the second reader comes and goes; the first takes over at once
        Client::MyOpen(&nameless_);
        Client::MyOpen(&reader_);
        Client::MyClose(&nameless_);
    }
    callers.clear();
    size_t total = 0;
    for (const auto& [handle, records] : enqueued) {
        std::map<char, size_t> last;  // a thread's records grow: none is missing, doubled or out of order
        for (const std::string& record : records) {
            EXPECT_EQ(std::string(record.size(), record[0]), record);
            EXPECT_LT(std::exchange(last[record[0]], record.size()), record.size());
        }
        total += records.size();
    }
    EXPECT_EQ(8 * RECORDS, total);
}

// At exit the publisher's destructor destroys the pool, during which, and after which, a reader may close. Its
// notification takes the lock and logs: the level table must still be there.
TEST_F(Publisher, AReaderMayCloseWhileAndAfterThePublisherEnds)
{
    ExpectAtExit("", "destroy(pool) | syslog 4 MyClose is called, A", [&] {
        static IAMRTFSMgrFile reader = reader_;
        ReportEventClient::GetInstance().RegisterResService(PM);
        Client::MyOpen(&reader);
        Journal();
        Next("iam", [] { Background([] { Client::MyClose(&reader); }); });
    });
    Client::MyOpen(&reader_);
    client_.reset();
    EXPECT_EQ(1, status);
    EXPECT_EQ(0, Client::MyClose(&reader_));
    EXPECT_EQ(2, status);
}

}  // namespace recording

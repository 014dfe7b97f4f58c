// The promises of iam.h that the library rests on.
#include <algorithm>
#include <csignal>
#include <future>

#include "Platform.h"
#include "tests/platform/IamSupport.h"

namespace platform_test {
namespace {

constexpr char HEADER[] = "iam.h";

// Serves the resource; the pool is the test's affair.
class Iam : public testing::Test {
protected:
    void SetUp() override
    {
        const int result = publisher.Serve();
        if (result < 0) {
            GTEST_SKIP() << "IAMRegisterRTService returns " << result << " for " << publisher.name
                         << ": this process may not serve it; --resource names another";
        }
    }

    Publisher publisher;
};

bool IsLostConnection(const std::string& record)
{
    return record == "!EPIPE" || record == "!EBADMSG" || record == "!EBADFD" || record == "!EBADF";
}

TEST_F(Iam, OneReadIsOneRecordWholeAndInOrder)
{
    Promise(HEADER, "every record of 0 to 3960 bytes is read once, whole and in the order of IAMRTDataEnqueue",
            "events would be lost, or be refused as damaged");
    ASSERT_LE(0, publisher.MakePool());
    const Reader reader;
    constexpr size_t SIZES[] = {0, 1, 362, 3959, 3960};
    const auto record = [&](size_t i) { return Numbered(i, 3960).substr(0, SIZES[i % 5]); };
    constexpr size_t COUNT = 5000;
    std::atomic<size_t> delivered{0};
    std::thread publishing([&] {
        for (size_t i = 0; i < COUNT && !HasFailure(); ++i) {
            // One at a time at first, so that the reader sleeps between; then back to back, so that the pool is full.
            EXPECT_TRUE(Eventually([&] { return i >= COUNT / 2 || delivered == i; }));
            EXPECT_TRUE(Eventually([&] { return publisher.Publish(record(i)) == 0 || HasFailure(); }));
        }
    });
    for (; delivered < COUNT && !HasFailure(); ++delivered) {
        EXPECT_EQ(record(delivered), reader.Read()) << delivered;
    }
    publishing.join();
}

TEST_F(Iam, NothingPublishedAfterOpenIsMissed)
{
    Promise(HEADER, "open returns after the open notification has, and the reader misses nothing from then on",
            "the first events after a registration or a reconnection would be lost");
    const Reader early;
    EXPECT_LE(1U, receiver->opened);
    ASSERT_LE(0, publisher.MakePool());
    ExpectDelivery(publisher, early);
    for (size_t opened = 2; opened < 20; ++opened) {
        const Reader reader(options.resource.c_str(), opened % 2 == 0 ? O_RDONLY : O_RDWR);
        EXPECT_LE(opened, receiver->opened);
        ExpectDelivery(publisher, reader);
    }
}

TEST_F(Iam, CloseWakesABlockedReadAtOnce)
{
    Promise(HEADER, "close from another thread wakes a thread that is blocked in IAMFastRead, and IAM notifies of it",
            "every unregistration would hang");
    ASSERT_LE(0, publisher.MakePool());
    for (size_t round = 1; round <= 20; ++round) {
        Reader reader;
        std::promise<void> reading;
        std::packaged_task<std::string(int)> read([&](int fd) {
            reading.set_value();
            return ReadFrom(fd);
        });
        std::future<std::string> result = read.get_future();
        std::thread(std::move(read), reader.fd).detach();  // it may never end
        reading.get_future().wait();
        reader.Close();
        ASSERT_EQ(std::future_status::ready, result.wait_for(options.patience)) << "the read is still blocked";
        EXPECT_EQ("!EBADF", result.get());
        EXPECT_TRUE(Eventually([&] { return receiver->closed >= round; }));
    }
}

TEST_F(Iam, NoReadFailsBecauseOfASignal)
{
    Promise(HEADER, "IAMFastRead never fails with EINTR", "any signal would end a subscription for good");
    ASSERT_LE(0, publisher.MakePool());
    static std::atomic<int> signals;
    signals = 0;
    struct sigaction action = {};
    action.sa_handler = [](int) { ++signals; };
    sigaction(SIGUSR1, &action, nullptr);
    const Reader reader;
    std::atomic<bool> over{false};
    std::thread reading([&] {
        EXPECT_EQ("at last", reader.Read());
        over = true;
        Eventually([&] { return signals >= 2000; });
    });
    while (signals < 2000 && !over) {
        pthread_kill(reading.native_handle(), SIGUSR1);
    }
    EXPECT_FALSE(over);
    signals = 2000;
    EXPECT_EQ(0, publisher.Publish("at last"));
    reading.join();
}

TEST_F(Iam, AnExhaustedPoolIsAFailureAndLosesNothing)
{
    Promise(HEADER, "a pool of 1000 blocks takes 1000 records, fails at once for another and takes as many again",
            "a reader that is slow would lose events or hold the publisher up");
    IAMShmPoolHandle none{};
    EXPECT_NE(0, IAMShmHandleMalloc(&none, 1, &publisher.block)) << "an all-zero handle names no pool";
    EXPECT_NE(0, IAMShmDestroyPool(&none)) << "an all-zero handle names no pool";
    ASSERT_LE(0, publisher.MakePool());
    const Reader reader;
    for (int round = 0; round < 3; ++round) {
        publisher.PublishNumbered(POOL_BLOCKS, 362);
        EXPECT_NE(0, publisher.Publish("one too many"));
        reader.ExpectNumbered(POOL_BLOCKS, 362);
    }
    // A failed enqueue leaves its block to the caller, and a block is given back once.
    EXPECT_EQ(0, IAMShmHandleMalloc(&publisher.pool, 1, &publisher.block));
    IAMDataPackage package{&publisher.pool, &publisher.block, 1};
    EXPECT_NE(0, IAMRTDataEnqueue(~receiver->current->dataHandle, &package));
    EXPECT_EQ(0, IAMShmFree(&publisher.pool, &publisher.block));
    EXPECT_EQ(POOL_BLOCKS, publisher.FreeBlocks());
}

TEST_F(Iam, NotificationsComeOnAThreadOfItsOwnWithNoLockHeld)
{
    Promise(HEADER, "notifications come on a thread of IAM's own and with no lock of IAM's held",
            "a publish and a reader that comes at that moment would wait for each other for ever");
    ASSERT_LE(0, publisher.MakePool());
    std::atomic<bool> inside{false};
    std::atomic<bool> published{false};
    std::thread::id notified;
    receiver->whenOpened = [&] {
        notified = std::this_thread::get_id();
        inside = true;
        EXPECT_TRUE(Eventually([&] { return published.load(); })) << "a call waits for the notification";
    };
    std::thread opening([&] {
        const Reader reader;
        EXPECT_NE(std::this_thread::get_id(), notified);
    });
    EXPECT_TRUE(Eventually([&] { return inside.load(); }));
    EXPECT_EQ(0, publisher.Publish("while the notification runs"));
    published = true;
    opening.join();
    EXPECT_NE(std::this_thread::get_id(), notified);
    EXPECT_TRUE(Eventually([&] { return receiver->closed >= 1; }));
}

TEST_F(Iam, AFileObjectLivesUntilItsCloseNotificationHasReturned)
{
    Promise(HEADER, "a file object stays as it is until the close notification for it has returned",
            "a publish to a reader that is just closing would go through freed memory");
    ASSERT_LE(0, publisher.MakePool());
    receiver->whenClosed = [&](IAMRTFSMgrFile* file) {
        EXPECT_EQ(1, std::count(receiver->opens.begin(), receiver->opens.end(), file->dataHandle));
        EXPECT_TRUE(file->name == nullptr || strnlen(file->name, 256) < 256);
        publisher.Publish("to one that is closing");  // whatever comes of it, the block comes back
    };
    for (size_t round = 1; round <= 20; ++round) {
        Reader().Close();
        EXPECT_TRUE(Eventually([&] { return receiver->closed >= round; }));
    }
    EXPECT_TRUE(Eventually([&] { return publisher.FreeBlocks() == POOL_BLOCKS; }));
}

TEST_F(Iam, CopiesTheRecordsHandedIn)
{
    Promise(HEADER, "IAM copies what it keeps of the records that it is given",
            "the library, whose records are gone after the call, would be called at random addresses");
    ASSERT_LE(0, publisher.MakePool());
    ExpectDelivery(publisher, Reader());
    EXPECT_TRUE(Eventually([&] { return receiver->closed >= 1 || receiver->misled != 0; }));
    EXPECT_EQ(0U, receiver->misled);
}

TEST_F(Iam, NothingIsNotifiedOnceThePoolIsDestroyed)
{
    Promise(HEADER,
            "after IAMShmDestroyPool has returned no notification runs, and its readers have lost the connection",
            "a publisher that is being destroyed would be called");
    for (int round = 0; round < 3; ++round) {
        std::atomic<bool> running{false};
        receiver->whenClosed = [&](IAMRTFSMgrFile*) {
            running = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));  // it is waited for
            running = false;
        };
        ASSERT_LE(0, publisher.MakePool());
        Reader leaving;
        Reader kept;
        leaving.Close();
        EXPECT_TRUE(Eventually([&] { return running.load(); }));
        EXPECT_EQ(0, IAMShmDestroyPool(&publisher.pool));
        EXPECT_FALSE(running);
        const size_t before = receiver->opened + receiver->closed;
        EXPECT_TRUE(IsLostConnection(kept.Read()));
        kept.Close();
        Reader().Close();
        EXPECT_NE(0, IAMShmHandleMalloc(&publisher.pool, 1, &publisher.block));
        EXPECT_NE(0, IAMShmDestroyPool(&publisher.pool));
        EXPECT_EQ(before, receiver->opened + receiver->closed);
        ASSERT_LE(0, publisher.Serve()) << "the resource can be served again";
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// Two processes

TEST(Role, DISABLED_ReadsNothing)
{
    const Reader reader;
    pause();
}

TEST_F(Iam, BlocksOfAReaderThatIsGoneOrStandsStillComeBack)
{
    Promise(HEADER, "IAM takes back the blocks of a reader that was killed, and of an older one that reads nothing",
            "the pool would stay empty, and no event would be published again");
    ASSERT_LE(0, publisher.MakePool());
    const Reader stalled;
    publisher.PublishNumbered(POOL_BLOCKS, 1);
    const pid_t killed = StartRole("ReadsNothing");
    if (killed < 0) {
        GTEST_SKIP() << NO_SECOND_PROCESS;
    }
    EXPECT_TRUE(Eventually([&] { return receiver->opened >= 2; }));
    EXPECT_TRUE(Eventually([&] { return publisher.Publish("to the newest") == 0; })) << "the older reader has them";
    while (publisher.Publish("more") == 0) {
    }
    kill(killed, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, StatusOf(killed));
    EXPECT_TRUE(Eventually([&] { return publisher.FreeBlocks() == POOL_BLOCKS; })) << "the killed reader has them";
    ExpectDelivery(publisher, Reader());
}

// Publishes to the first reader, which has read something by then.
void PublishAHundred(Publisher& publisher)
{
    ASSERT_TRUE(Eventually([&] { return publisher.Publish("hello") == 0; }));
    ASSERT_TRUE(Eventually([&] { return publisher.FreeBlocks() == POOL_BLOCKS; }));
    publisher.PublishNumbered(100, 100);
}

TEST(Role, DISABLED_DestroysItsPool)
{
    Publisher publisher(POOL_BLOCKS);
    PublishAHundred(publisher);
}

TEST(Role, DISABLED_IsKilled)
{
    Publisher publisher(POOL_BLOCKS);
    PublishAHundred(publisher);
    raise(SIGKILL);
}

TEST(IamProcesses, APublishersEndIsALostConnectionAndItsRestartANewOne)
{
    Promise(HEADER, "after its publisher's end a read fails with EPIPE, EBADMSG, EBADFD or EBADF, and open works again",
            "a subscription would end for good, or read for ever from nobody");
    for (const auto& [role, status] : {std::pair("IsKilled", 128 + SIGKILL), std::pair("DestroysItsPool", 0)}) {
        const pid_t pid = StartRole(role);
        if (pid < 0) {
            GTEST_SKIP() << NO_SECOND_PROCESS;
        }
        Reader reader;
        ASSERT_TRUE(Eventually([&] { return reader.fd >= 0 || reader.Open(options.resource.c_str(), O_RDONLY); }));
        EXPECT_EQ("hello", reader.Read());
        EXPECT_EQ(status, StatusOf(pid));
        std::string record = reader.Read();
        for (size_t i = 0; record == Numbered(i, 100); ++i) {
            record = reader.Read();
        }
        EXPECT_TRUE(IsLostConnection(record)) << "'" << record << "' after the publisher's end";
    }
}

// The exit handler was registered before the service, as what the library has built before.
TEST(Role, DISABLED_ExitsDuringANotification)
{
    static std::atomic<bool> running{false};
    std::atexit([] {
        const bool isRunning = running;
        const size_t before = receiver->opened + receiver->closed;
        Reader();
        _exit(!isRunning && receiver->opened + receiver->closed == before ? 0 : 7);
    });
    auto& publisher = *new Publisher;  // never destroyed: that would end its service in order
    EXPECT_LE(0, publisher.Serve());
    receiver->whenOpened = [] {
        running = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // it is waited for
        running = false;
    };
    std::thread([] { Reader(); }).detach();
    EXPECT_TRUE(Eventually([] { return running.load(); }));
    exit(9);
}

TEST(IamProcesses, NothingIsNotifiedDuringExit)
{
    Promise(HEADER, "once the exit handlers have come to what was built before the service, nothing is notified",
            "a reader that comes at that moment would crash the process");
    const pid_t pid = StartRole("ExitsDuringANotification");
    if (pid < 0) {
        GTEST_SKIP() << NO_SECOND_PROCESS;
    }
    EXPECT_EQ(0, StatusOf(pid));
}

}  // namespace
}  // namespace platform_test

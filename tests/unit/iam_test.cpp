// What every implementation of platform/include/iam.h must do, and what the development host's promises on top.
#include <spawn.h>
#include <sys/stat.h>

#include <csignal>
#include <ctime>
#include <deque>
#include <random>
#include <set>

#include "platform/host/common/Descriptor.h"
#include "tests/unit/iam_support.h"

namespace iam_test {
namespace {

using host_platform::UniqueFd;

// This program in another role, before main: a process that serves NAME and has no pool, or publishes to the first
// reader and dies by SIGKILL. It exits with 3 when it cannot register, and with 7 when a reader can still come by the
// time of what was made before its service.
struct OtherRole {
    OtherRole()
    {
        const char* const role = getenv("IAM_TEST_ROLE");
        if (role == nullptr) {
            return;
        }
        static int result;
        std::atexit([] { _exit(result != 0 ? 3 : Reader().fd >= 0 ? 7 : 0); });
        Publisher publisher;
        result = publisher.Serve();
        if (result != 0 || role != std::string("publisher")) {
            exit(0);
        }
        result = publisher.MakePool(1000);
        // A reader is connected once it has read something.
        EXPECT_TRUE(Eventually([&] { return publisher.Publish("hello") == 0; }));
        EXPECT_TRUE(Eventually([&] { return publisher.FreeBlocks() == 1000; }));
        publisher.PublishNumbered(900, 100);
        raise(SIGKILL);
    }
} const otherRole;

pid_t Start(const char* role)
{
    setenv("IAM_TEST_ROLE", role, 1);
    char self[] = "/proc/self/exe";
    char* arguments[] = {self, nullptr};
    pid_t pid = -1;
    EXPECT_EQ(0, posix_spawn(&pid, self, nullptr, nullptr, arguments, environ));
    unsetenv("IAM_TEST_ROLE");
    return pid;
}

int Mode(const std::string& path)
{
    return static_cast<int>(std::filesystem::status(path).permissions());
}

TEST_F(IamTest, RecordsOfEverySizeArriveUnchangedInOrderAcrossManyTurnsOfTheRing)
{
    Publisher publisher(7);
    const Reader reader;
    constexpr size_t SIZES[] = {0, 1, 3, 362, 3959, 3960};
    const auto record = [&](size_t i) { return Numbered(i, 3960).substr(0, SIZES[i % 6]); };
    std::atomic<size_t> delivered{0};
    std::thread publishing([&] {  // one at a time, then back to back, with sleeps of the reader and a full pool
        for (size_t i = 0; i < 5000; ++i) {
            ASSERT_TRUE(Eventually([&] { return (i >= 30 || delivered == i) && publisher.Publish(record(i)) == 0; }));
        }
    });
    for (; delivered < 5000; ++delivered) {
        ASSERT_EQ(record(delivered), reader.Read()) << delivered;
    }
    publishing.join();
    EXPECT_EQ(7U, publisher.FreeBlocks());
}

TEST_F(IamTest, NothingPublishedAfterOpenIsMissedWhenThePoolComesLater)
{
    Publisher publisher;
    EXPECT_LT(publisher.MakePool(4), 0);  // no service yet
    EXPECT_EQ(ENOENT, Reader().error);
    ASSERT_EQ(0, publisher.Serve());
    const Reader early;
    EXPECT_EQ(1U, receiver.opened);
    EXPECT_NE(0, publisher.Publish("no pool"));
    EXPECT_TRUE(publisher.MakePool(0) < 0 && publisher.MakePool(100000) < 0 && publisher.MakePool(10, 63) < 0);
    ASSERT_EQ(0, publisher.MakePool(4));  // a retry after failures
    EXPECT_LT(publisher.MakePool(4), 0);  // not twice
    ExpectDelivery(publisher, early);
    ExpectDelivery(publisher, Reader(NAME, O_RDONLY));
    // A second registration replaces the notifications.
    EXPECT_EQ(0, publisher.Serve([](IAMRTFSMgrFile*) { return static_cast<int>(receiver.opened += 10); }, nullptr));
    {
        const Reader reader;
    }
    EXPECT_EQ(12U, receiver.opened);
}

TEST_F(IamTest, AFullPoolIsAResultCodeAndLosesNothing)
{
    Publisher publisher(1000);
    Reader first;
    for (size_t round = 0; round < 3; ++round) {
        publisher.PublishNumbered(1000, 362);
        EXPECT_NE(0, publisher.Publish("one too many"));
        first.ExpectNumbered(1000, 362);
    }
    // A current reader that stalls keeps its records. Superseded, it is cut off once they are the last of the pool,
    // and delivers none of the blocks that others have by then.
    publisher.PublishNumbered(1000, 10);
    EXPECT_NE(0, publisher.Publish("full"));
    first.ExpectNumbered(1, 10);
    const Reader second;
    EXPECT_TRUE(Eventually([&] { return publisher.FreeBlocks() == 1000; }));
    publisher.PublishNumbered(1000, 20);
    EXPECT_EQ("!ESTALE", first.Read());
    second.ExpectNumbered(1000, 20);
    EXPECT_TRUE(Eventually([&] { return receiver.closed == 1; }));
    // One that has read everything stays, though its blocks have not been taken back when others need them.
    const Reader third;
    publisher.PublishNumbered(1000, 10);
    const Reader last;  // once it is connected, the service has heard of a hang-up before it
    EXPECT_EQ(1U, receiver.closed);
    // It is the current one at once: the third, which has read nothing, must go.
    EXPECT_TRUE(Eventually([&] { return publisher.FreeBlocks() == 1000; }));
    publisher.PublishNumbered(1000, 30);
    EXPECT_EQ("!ESTALE", third.Read());
    last.ExpectNumbered(1000, 30);
    // So is one that is published to from inside its open notification: it is not cut off.
    receiver.whenOpened = [&] {
        EXPECT_TRUE(Eventually([&] { return publisher.FreeBlocks() == 1000; }));
        publisher.PublishNumbered(1000, 40);
        EXPECT_NE(0, publisher.Publish("one too many"));
    };
    Reader().ExpectNumbered(1000, 40);
}

void AllFail(std::initializer_list<int> results)
{
    size_t index = 0;
    for (const int result : results) {
        EXPECT_NE(0, result) << "call " << index++;
    }
}

TEST_F(IamTest, AHandleThatIsNotGoodMakesTheCallFailAndChangesNothing)
{
    Publisher publisher(4);
    Publisher other(0, "dp:/res/unit/other");
    EXPECT_EQ(-EEXIST, other.Serve());
    IAMShmPoolHandle* const pool = &publisher.pool;
    const Reader reader;
    const uint64_t data = receiver.current->dataHandle;
    IAMShmPoolHandle noPool{};
    IAMShmBlockHandle block{};
    IAMShmBlockHandle noBlock{};
    AllFail({IAMShmHandleMalloc(nullptr, 1, &block), IAMShmHandleMalloc(pool, 1, nullptr),
             IAMShmHandleMalloc(pool, 4033, &block)});
    std::mt19937_64 random(7);
    for (int i = 0; i < 2000; ++i) {  // handles that are zero at first, then invented
        IAMShmBlockHandle invented{i == 0 ? 0 : random() >> random() % 64};
        memcpy(noPool.opaque + random() % 24, &invented, 8);
        AllFail({IAMShmWrite(&invented, "x", 1, 0), IAMShmFree(pool, &invented), IAMShmHandleMalloc(&noPool, 1, &block),
                 IAMShmDestroyPool(&noPool)});
    }
    ASSERT_EQ(0, IAMShmHandleMalloc(pool, 5, &block));
    EXPECT_EQ(0, IAMShmWrite(&block, "12", 2, 3));
    AllFail({IAMShmWrite(&block, "12", 2, 4), IAMShmWrite(&block, "12", 2, UINT32_MAX),
             IAMShmWrite(&block, nullptr, 2, 0), IAMShmFree(&other.pool, &block), IAMRTDataEnqueue(data, nullptr)});
    IAMDataPackage good{pool, &block, 1};
    for (IAMDataPackage bad :
         {IAMDataPackage{&other.pool, &block, 1}, IAMDataPackage{pool, &noBlock, 1}, IAMDataPackage{nullptr, &block, 1},
          IAMDataPackage{pool, nullptr, 1}, IAMDataPackage{pool, &block, 2}}) {
        EXPECT_NE(0, IAMRTDataEnqueue(data, &bad));
    }
    for (const uint64_t unknown : std::vector<uint64_t>{0, data + 1, data ^ 1ULL << 40, data ^ 1ULL << 56, ~data}) {
        EXPECT_NE(0, IAMRTDataEnqueue(unknown, &good));
    }
    IAMShmBlockHandle old = block;
    EXPECT_EQ(0, IAMRTDataEnqueue(data, &good));
    AllFail({IAMRTDataEnqueue(data, &good), IAMShmWrite(&block, "x", 1, 0), IAMShmFree(pool, &block)});
    EXPECT_EQ("12", reader.Read().substr(3));
    EXPECT_EQ(4U, publisher.FreeBlocks());
    ASSERT_EQ(0, IAMShmHandleMalloc(pool, 5, &block));
    AllFail({IAMShmFree(pool, &old)});
    EXPECT_EQ(0, IAMShmFree(pool, &block));
    IAMRTServiceRecord unnamed{};
    IAMRTServiceRecord plain{NAME, nullptr, {}};
    AllFail({IAMShmFree(pool, &block), IAMRegisterRTService(nullptr), IAMRegisterRTService(&unnamed),
             IAMRegisterRTService(&plain), Publisher(0, "no resource").Serve(),
             Publisher(0, "not/a:/res/name").Serve()});
    EXPECT_EQ(4U, publisher.FreeBlocks());
}

TEST_F(IamTest, OrdinaryFilesPassThrough)
{
    const std::string path = directory + "/file";
    const int fd = OpenResource(path.c_str(), O_CREAT | O_WRONLY, 0600);
    EXPECT_EQ(0600, Mode(path));
    EXPECT_EQ("!EBADF", ReadFrom(fd));
    EXPECT_EQ(0, CloseResource(fd));
    EXPECT_EQ(-1, CloseResource(fd));
    EXPECT_EQ(0, unlink(path.c_str()));
}

TEST_F(IamTest, CloseWakesABlockedReaderAtOnceAndItsNumberLeadsToNobodyElsesRecords)
{
    Publisher publisher(4);
    LimitDescriptors(100);  // numbers come round soon
    Reader reader;
    const int first = reader.fd;
    ASSERT_EQ(0, publisher.Publish("old"));
    std::atomic<bool> cameRound{false};
    std::thread old([&] {
        EXPECT_EQ("old", ReadFrom(first));
        EXPECT_TRUE(Eventually([&] { return cameRound.load(); }));
        EXPECT_EQ("!EBADF", ReadFrom(first));  // though another file has the number now
    });
    EXPECT_TRUE(Eventually([&] { return publisher.FreeBlocks() == 4; }));  // it has read
    std::set<int> numbers;
    while (reader.Open() && reader.fd != first && numbers.insert(reader.fd).second) {
        EXPECT_EQ(FD_CLOEXEC, fcntl(reader.fd, F_GETFD));
        std::atomic<bool> reading{false};
        std::thread blocked([&reading, fd = reader.fd] {
            reading = true;
            EXPECT_EQ("!EBADF", ReadFrom(fd));
        });
        EXPECT_TRUE(Eventually([&] { return numbers.size() % 2 == 1 || reading; }));
        reader.Close();
        blocked.join();
    }
    EXPECT_EQ(first, reader.fd);
    EXPECT_GT(numbers.size(), 30U);
    EXPECT_EQ(0, publisher.Publish("new"));
    cameRound = true;
    old.join();
    EXPECT_EQ("new", reader.Read());
    EXPECT_TRUE(Eventually([&] { return receiver.closed == numbers.size() + 1; }));
    EXPECT_EQ(4U, publisher.FreeBlocks());
}

TEST_F(IamTest, NeitherASignalNorABufferThatIsTooSmallLosesARecord)
{
    Publisher publisher(4);
    static std::atomic<int> signals;
    signals = 0;
    const auto before = signal(SIGUSR1, [](int) { ++signals; });
    const Reader reader;
    std::thread reading([&] { EXPECT_EQ("!EMSGSIZE", reader.Read(6)); });
    EXPECT_TRUE(Eventually([&] { return pthread_kill(reading.native_handle(), SIGUSR1) != 0 || signals >= 2000; }));
    ASSERT_EQ(0, publisher.Publish("at last"));
    reading.join();
    signal(SIGUSR1, before);
    EXPECT_EQ(-1, IAMFastRead(reader.fd, nullptr, 7));
    EXPECT_EQ(EFAULT, errno);
    EXPECT_EQ("at last", reader.Read(7));
}

TEST_F(IamTest, DestroyingThePoolEndsNotificationsAndLeavesReadersTheirRecords)
{
    IAMShmPoolHandle previous{};
    for (int round = 0; round < 3; ++round) {
        Publisher publisher(4);
        AllFail({IAMShmHandleMalloc(&previous, 1, &publisher.block), IAMShmDestroyPool(&previous)});
        previous = publisher.pool;
        const Reader kept;
        const Reader left;
        ASSERT_EQ(0, publisher.Publish("one"));
        ASSERT_EQ(0, publisher.Publish("two"));
        ASSERT_EQ(0, IAMShmDestroyPool(&publisher.pool));
        EXPECT_EQ(2U, receiver.closed);
        AllFail({IAMShmDestroyPool(&publisher.pool), IAMShmHandleMalloc(&publisher.pool, 1, &publisher.block)});
        for (const char* const expected : {"one", "two", "!EPIPE", "!EPIPE"}) {
            EXPECT_EQ(expected, left.Read());
        }
        EXPECT_EQ("!EPIPE", kept.Read());
        EXPECT_NE(0, Reader().error);
    }
    // From inside a notification: no deadlock, and silence afterwards.
    Publisher publisher(4);
    receiver.whenOpened = [&] { EXPECT_EQ(0, IAMShmDestroyPool(&publisher.pool)); };
    const Reader last;
    EXPECT_TRUE(last.fd < 0 || last.Read() == "!EPIPE");
    EXPECT_TRUE(Eventually([&] { return publisher.Serve() == 0; }));
    EXPECT_EQ(0U, receiver.closed);
    ASSERT_EQ(0, publisher.MakePool(4));
}

TEST_F(IamTest, AKilledServiceHasDeliveredWhatItAcceptedAndLeavesItsNameFree)
{
    for (int round = 0; round < 3; ++round) {
        const pid_t pid = Start("publisher");
        Reader reader;
        ASSERT_TRUE(Eventually([&] { return reader.fd >= 0 || reader.Open(); }));
        EXPECT_EQ("hello", reader.Read());
        EXPECT_EQ(SIGKILL, WTERMSIG(StatusOf(pid)));
        reader.ExpectNumbered(900, 100);
        EXPECT_EQ("!EPIPE", reader.Read());
        EXPECT_EQ(ECONNREFUSED, Reader().error);
    }
    EXPECT_EQ(0, StatusOf(Start("service")));
    Publisher publisher(4);
    const int second = StatusOf(Start("service"));
    EXPECT_TRUE(WIFEXITED(second) && WEXITSTATUS(second) == 3);  // a live process serves it
    ExpectDelivery(publisher, Reader());
}

TEST_F(IamTest, ReadersThatComeAndGoDisturbNeitherEachOtherNorTheOrder)
{
    Publisher publisher(50);
    std::mutex turn;
    int newest = -1;  // whoever opens next closes it, under its reader's hands
    size_t enough = 0;
    std::atomic<size_t> delivered{0};
    const auto comeAndGo = [&](unsigned seed) {
        std::mt19937 random(seed);
        for (int round = 0; round < 40; ++round) {
            std::unique_lock<std::mutex> lock(turn);
            EXPECT_TRUE(Eventually([&] { return delivered >= enough; }));
            enough = delivered + 5;
            if (round % 2 == 0) {
                CloseResource(std::exchange(newest, -1));
            }  // while it is the current one
            const int fd = OpenResource(NAME, O_RDWR);
            CloseResource(std::exchange(newest, fd));
            lock.unlock();
            std::string record;
            size_t records = 10 + random() % 300;
            for (size_t last = 0; records > 0 && (record = ReadFrom(fd))[0] != '!'; --records, ++delivered) {
                const size_t number = std::stoul(record);
                ASSERT_EQ(Numbered(number, 300), record);
                ASSERT_TRUE(last == 0 || number == last + 1) << last << " then " << number;
                last = number;
            }
            EXPECT_TRUE(records == 0 || record == "!EBADF" || record == "!EPIPE") << record;
        }
    };
    std::atomic<bool> running{true};
    std::thread publishing([&] {
        for (size_t number = 1; running;) {
            number += publisher.Publish(Numbered(number, 300)) == 0 ? 1 : 0;  // what was refused is tried again
        }
    });
    std::vector<std::thread> readers;
    for (unsigned seed = 0; seed < 4; ++seed) {
        readers.emplace_back(comeAndGo, seed);
    }
    for (auto& reader : readers) {
        reader.join();
    }
    running = false;
    publishing.join();
    CloseResource(newest);
    EXPECT_TRUE(Eventually([&] { return receiver.closed == 160; }));
    EXPECT_EQ(160U, receiver.opened);
    EXPECT_EQ(50U, publisher.FreeBlocks());
    EXPECT_GE(delivered.load(), 795U);
}

TEST_F(IamTest, ManyReadersAndTooFewDescriptorsDoNotStopTheService)
{
    Publisher publisher(4);
    const auto begin = std::clock();
    for (rlim_t limit = 100; limit < 108; ++limit) {  // each time another step of an open fails, on this side or that
        LimitDescriptors(limit);
        std::deque<UniqueFd> others;
        while (others.size() < limit - 60) {
            others.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        }
        std::deque<Reader> readers;
        while (readers.emplace_back().fd >= 0) {
        }
        EXPECT_GT(readers.size(), 3U);
        readers.pop_back();
        EXPECT_TRUE(Eventually([&] { return readers.back().Open(); }));
        ExpectDelivery(publisher, readers.back());
        readers.clear();
        EXPECT_TRUE(Eventually([&] { return receiver.closed == receiver.opened; }));
    }
    EXPECT_LT(std::clock() - begin, CLOCKS_PER_SEC / 2);  // the service rests while it cannot accept
}

TEST_F(IamTest, ARuntimeDirectoryThatIsNotPrivateIsRefused)
{
    const std::string inner = directory + "/inner";
    const auto refused = [&](const std::string& value, const char* what) {
        setenv("IAM_RUNTIME_DIR", value.c_str(), 1);
        EXPECT_LT(Publisher().Serve(), 0) << what;
        EXPECT_NE(0, Reader().error) << what;
        std::filesystem::remove_all(inner);
    };
    EXPECT_EQ(0, mkdir(inner.c_str(), 0750));
    refused(inner, "others can enter");
    std::filesystem::create_directory_symlink(directory, inner);
    refused(inner, "a link");
    EXPECT_EQ(0, close(creat(inner.c_str(), 0600)));
    refused(inner, "a file");
    refused(inner + "/missing/deeper", "nowhere to make it");
    refused("relative", "relative");
    if (geteuid() == 0) {
        EXPECT_EQ(0, mkdir(inner.c_str(), 0700) + chown(inner.c_str(), 12345, 12345));
        refused(inner, "another user's");
    }
    setenv("IAM_RUNTIME_DIR", directory.c_str(), 1);

    const std::string longName = "dp:/res/" + std::string(100, 'x');
    EXPECT_EQ(ENAMETOOLONG, Reader(longName.c_str()).error);
    EXPECT_EQ(-ENAMETOOLONG, Publisher(0, longName.c_str()).Serve());

    // Below XDG_RUNTIME_DIR it is made, with the right mode.
    unsetenv("IAM_RUNTIME_DIR");
    setenv("XDG_RUNTIME_DIR", directory.c_str(), 1);
    {
        const Publisher publisher(1);
    }
    EXPECT_EQ(0700, Mode(directory + "/iam"));
    unsetenv("XDG_RUNTIME_DIR");
    EXPECT_TRUE(std::filesystem::remove(directory + "/iam"));
}

}  // namespace
}  // namespace iam_test

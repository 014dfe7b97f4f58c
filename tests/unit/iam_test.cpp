// What the host's IAM does with every handle, number, buffer and end, beyond what platform/include/iam.h promises.
#include <random>
#include <set>

#include "platform/host/iam/HostService.h"
#include "tests/unit/iam_support.h"

namespace iam_test {
namespace {

TEST_F(IamTest, WhatIsOutOfTurnOrOutOfBoundsFailsAndChangesNothing)
{
    Publisher other(0, "dp:/res/unit/another");
    Publisher publisher;
    EXPECT_LT(publisher.MakePool(4), 0);  // no service yet
    EXPECT_EQ(ENOENT, Reader().error);
    ASSERT_EQ(0, publisher.Serve());
    const Reader reader;
    EXPECT_LT(other.MakePool(4), 0);  // of another name
    EXPECT_LT(publisher.MakePool(0), 0);
    EXPECT_LT(publisher.MakePool(1025), 0);
    EXPECT_LT(publisher.MakePool(10, 63), 0);
    {
        const Limit files(RLIMIT_FSIZE, 4 * 4032 - 1);  // the signal that comes with it would end this process
        EXPECT_EQ(-EFBIG, publisher.MakePool(4));
    }
    {
        const Limit files(RLIMIT_FSIZE, 4 * 4032);
        EXPECT_EQ(0, publisher.MakePool(4));  // a retry after failures
    }
    {
        const Limit files(RLIMIT_FSIZE, 1000);
        EXPECT_EQ(ECONNREFUSED, Reader().error);  // there is no ring for it
    }
    EXPECT_LT(publisher.MakePool(4), 0);  // not twice
    ASSERT_EQ(0, publisher.Publish("at last"));
    EXPECT_EQ("!EMSGSIZE", reader.Read(6));
    EXPECT_EQ(-1, IAMFastRead(reader.fd, nullptr, 7));
    EXPECT_EQ(EFAULT, errno);
    EXPECT_EQ("at last", reader.Read(7));
    // A second registration replaces the notifications.
    EXPECT_EQ(0, publisher.Serve([](IAMRTFSMgrFile*) { return static_cast<int>(receiver->opened += 10); }, nullptr));
    const Reader second;
    EXPECT_EQ(11U, receiver->opened);
    // A process serves one name at a time.
    EXPECT_EQ(-EEXIST, other.Serve());
    EXPECT_EQ(-1, IAMHostReaderCount("dp:/res/unit/another"));
    EXPECT_EQ(2, IAMHostReaderCount(NAME));
    ASSERT_EQ(0, IAMShmDestroyPool(&publisher.pool));
    EXPECT_EQ(-1, IAMHostReaderCount(NAME));
    EXPECT_EQ(0, other.Serve());
    EXPECT_EQ(0, other.MakePool(4));
}

TEST_F(IamTest, AHandleThatIsNotGoodMakesTheCallFailAndChangesNothing)
{
    Publisher publisher(4);
    IAMShmPoolHandle* const pool = &publisher.pool;
    const Reader reader;
    const uint64_t data = receiver->current->dataHandle;
    IAMHostObserve(1);
    const Reader observer;
    IAMHostObserve(0);
    const uint64_t ofObserver = data + (1ULL << 40) + 1;  // the next place and use
    IAMShmPoolHandle noPool{};
    IAMShmBlockHandle block{};
    IAMShmBlockHandle noBlock{};
    EXPECT_NE(0, IAMShmHandleMalloc(nullptr, 1, &block));
    EXPECT_NE(0, IAMShmHandleMalloc(pool, 1, nullptr));
    EXPECT_NE(0, IAMShmHandleMalloc(pool, 4033, &block));
    EXPECT_EQ(0, IAMShmHandleMalloc(pool, 4032, &block));
    EXPECT_EQ(0, IAMShmFree(pool, &block));
    std::mt19937_64 random(7);
    for (int i = 0; i < 2000; ++i) {  // handles that are zero at first, then invented
        IAMShmBlockHandle invented{i == 0 ? 0 : random() >> random() % 64};
        std::memcpy(noPool.opaque + random() % 24, &invented, 8);
        ASSERT_NE(0, IAMShmWrite(&invented, "x", 1, 0)) << invented.opaque;
        ASSERT_NE(0, IAMShmFree(pool, &invented)) << invented.opaque;
        ASSERT_NE(0, IAMShmHandleMalloc(&noPool, 1, &block));
        ASSERT_NE(0, IAMShmDestroyPool(&noPool));
    }
    ASSERT_EQ(0, IAMShmHandleMalloc(pool, 5, &block));
    EXPECT_EQ(0, IAMShmWrite(&block, "12", 2, 3));
    EXPECT_NE(0, IAMShmWrite(&block, "12", 2, 4));
    EXPECT_NE(0, IAMShmWrite(&block, "12", 2, UINT32_MAX));
    EXPECT_NE(0, IAMShmWrite(&block, nullptr, 2, 0));
    EXPECT_NE(0, IAMRTDataEnqueue(data, nullptr));
    for (IAMDataPackage bad :
         {IAMDataPackage{&noPool, &block, 1}, IAMDataPackage{pool, &noBlock, 1}, IAMDataPackage{nullptr, &block, 1},
          IAMDataPackage{pool, nullptr, 1}, IAMDataPackage{pool, &block, 2}}) {
        EXPECT_NE(0, IAMRTDataEnqueue(data, &bad));
    }
    IAMDataPackage good{pool, &block, 1};
    for (const uint64_t unknown :
         std::vector<uint64_t>{0, block.opaque, ofObserver, data + 1, data ^ 1ULL << 40, data ^ 1ULL << 56, ~data}) {
        ASSERT_NE(0, IAMRTDataEnqueue(unknown, &good));
    }
    // Once enqueued it is not the caller's any more, and its handle is good for no later use of the block.
    IAMShmBlockHandle old = block;
    EXPECT_EQ(0, IAMRTDataEnqueue(data, &good));
    EXPECT_NE(0, IAMRTDataEnqueue(data, &good));
    EXPECT_NE(0, IAMShmWrite(&block, "x", 1, 0));
    EXPECT_NE(0, IAMShmFree(pool, &block));
    EXPECT_EQ("12", reader.Read().substr(3));
    EXPECT_EQ(4U, publisher.FreeBlocks());
    ASSERT_EQ(0, IAMShmHandleMalloc(pool, 5, &block));
    EXPECT_NE(0, IAMShmFree(pool, &old));
    EXPECT_EQ(0, IAMShmFree(pool, &block));
    EXPECT_NE(0, IAMShmFree(pool, &block));
    EXPECT_EQ(4U, publisher.FreeBlocks());
    IAMRTServiceRecord unnamed{};
    IAMRTServiceRecord plain{NAME, nullptr, {}};
    EXPECT_LT(IAMRegisterRTService(nullptr), 0);
    EXPECT_LT(IAMRegisterRTService(&unnamed), 0);
    EXPECT_LT(IAMRegisterRTService(&plain), 0);
}

TEST_F(IamTest, TheNumberOfAClosedFileLeadsToNobodyElsesRecords)
{
    Publisher publisher(4);
    for (int i = 0; i < 1100; ++i) {  // more than the places of the service, which come round too
        ASSERT_EQ(0, Reader().error);
    }
    const Limit few(RLIMIT_NOFILE, 100);  // numbers come round soon
    Reader reader;
    const int first = reader.fd;
    ASSERT_EQ(0, publisher.Publish("old"));
    std::atomic<bool> cameRound{false};
    std::thread old([&] {
        EXPECT_EQ("old", ReadFrom(first));
        EXPECT_TRUE(Eventually([&] { return cameRound.load(); }));
        EXPECT_EQ("!EBADF", ReadFrom(first));  // though another file has the number now
        EXPECT_EQ("new", ReadFrom(first));     // which it has not missed
    });
    EXPECT_TRUE(Eventually([&] { return publisher.FreeBlocks() == 4; }));  // it has read
    std::set<int> numbers;
    while (reader.Open() && reader.fd != first && numbers.insert(reader.fd).second) {
    }
    EXPECT_EQ(first, reader.fd);
    EXPECT_GT(numbers.size(), 30U);
    EXPECT_EQ(0, publisher.Publish("new"));
    cameRound = true;
    old.join();
}

TEST_F(IamTest, DestroyingThePoolLeavesReadersTheirRecordsAndMayHappenInsideANotification)
{
    IAMShmPoolHandle previous{};
    for (int round = 0; round < 2; ++round) {
        Publisher publisher(4);
        EXPECT_NE(0, IAMShmHandleMalloc(&previous, 1, &publisher.block));
        EXPECT_NE(0, IAMShmDestroyPool(&previous));
        previous = publisher.pool;
        Reader left;
        const Reader kept;
        left.Close();
        EXPECT_TRUE(Eventually([&] { return receiver->closed == 1; }));
        EXPECT_TRUE(left.Open());  // the newest, where the oldest was
        ASSERT_EQ(0, publisher.Publish("one"));
        ASSERT_EQ(0, publisher.Publish("two"));
        ASSERT_EQ(0, IAMShmDestroyPool(&publisher.pool));
        EXPECT_EQ(receiver->opens, receiver->closes);  // in the order of the opens
        for (const char* const expected : {"one", "two", "!EPIPE", "!EPIPE"}) {
            EXPECT_EQ(expected, left.Read());
        }
    }
    // From inside a notification: no deadlock, and silence afterwards.
    Publisher publisher(4);
    receiver->whenOpened = [&] { EXPECT_EQ(0, IAMShmDestroyPool(&publisher.pool)); };
    const Reader last;
    EXPECT_TRUE(last.fd < 0 || last.Read() == "!EPIPE");
    EXPECT_TRUE(Eventually([&] { return publisher.Serve() == 0; }));
    EXPECT_EQ(0U, receiver->closed);
    ASSERT_EQ(0, publisher.MakePool(4));
    receiver->whenOpened = nullptr;
    ExpectDelivery(publisher, Reader());
    EXPECT_EQ(2U, receiver->opened);  // the next life is not silent
}

}  // namespace
}  // namespace iam_test

// The promises of fte.h that the library rests on.
#include <sys/mman.h>

#include <atomic>
#include <memory>
#include <random>

#include "Platform.h"
#include "tests/platform/Support.h"

namespace platform_test {
namespace {

constexpr char HEADER[] = "fte.h";

void Register(const std::function<void()>& action)
{
    const auto callable = [=](const unsigned char* data, unsigned int length) {
        EXPECT_TRUE(data != nullptr && length >= 2 && length <= 3960);
        action();
        return 0;
    };
    EXPECT_EQ(0, FTERegisterCallback(callable));
}

int Send()
{
    FTEReportInfo report{0x8C03A000, 0, 0, 0xFFFF, 2, 1, {}, "process-manager", {}};
    return MidFTEReport(&report);
}

class Fte : public testing::Test {
protected:
    void SetUp() override
    {
        if (FTERegisterCallback == nullptr) {
            GTEST_SKIP() << "no library of this process has the four functions of fte.h";
        }
    }
};

// Reports come back to this process.
class FteDelivery : public Fte {
protected:
    void SetUp() override
    {
        Fte::SetUp();
        static std::atomic<int> delivered;
        delivered = 0;
        if (!IsSkipped()) {
            Register([] { ++delivered; });
            EXPECT_EQ(0, Send());
            if (!Eventually([] { return delivered == 1; })) {
                GTEST_SKIP() << "what MidFTEReport reports does not come back to this process";
            }
        }
    }
    void TearDown() override
    {
        EXPECT_EQ(0, FTEUnregisterCallback == nullptr ? 0 : FTEUnregisterCallback());
    }
};

TEST_F(FteDelivery, IsOverOnceUnregistrationHasReturned)
{
    Promise(HEADER, "once FTEUnregisterCallback has returned, the callable is not running and is not called again",
            "a client that has unregistered would be called while it is being destroyed");
    std::atomic<int> entered{0};
    std::atomic<int> left{0};
    for (int round = 1; round <= 20; ++round) {
        Register([&] {
            ++entered;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            ++left;
        });
        EXPECT_EQ(0, Send());
        EXPECT_TRUE(Eventually([&] { return entered == round; }));
        EXPECT_EQ(0, FTEUnregisterCallback());
        EXPECT_EQ(round, left);
    }
}

TEST_F(FteDelivery, TheLastCallableIsCalledOnAnotherThreadAndMayEndTheDelivery)
{
    Promise(HEADER, "a registration replaces the callable, which is called on another thread and may unregister",
            "a client would miss faults, get those of another registration, or wait for itself");
    std::atomic<bool> mayLeave{false};
    std::atomic<int> entered{0};
    std::atomic<int> left{0};
    const auto caller = std::this_thread::get_id();
    const auto isNotCalled = [] { ADD_FAILURE() << "called, though replaced or withdrawn"; };
    Register(isNotCalled);
    Register([&] {
        EXPECT_NE(std::this_thread::get_id(), caller);
        ++entered;
        EXPECT_TRUE(Eventually([&] { return mayLeave.load(); }));
        EXPECT_EQ(0, FTEUnregisterCallback());
        ++left;
    });
    EXPECT_EQ(0, Send());
    EXPECT_TRUE(Eventually([&] { return entered == 1; }));
    Register(isNotCalled);
    mayLeave = true;
    EXPECT_TRUE(Eventually([&] { return left == 1; }));
    Register([&] { ++left; });
    EXPECT_EQ(0, Send());
    EXPECT_TRUE(Eventually([&] { return left == 2; }));
}

TEST_F(Fte, WhatCannotBeDecodedIsRefusedAndCanBeReleased)
{
    Promise(HEADER, "FTEDeSerialize reads no byte beyond its input and leaves didInfo null or released by delete[]",
            "a damaged record would crash every client");
    const auto decodeRubbish = [](unsigned seed) {
        // The input ends where the readable memory does.
        constexpr size_t SIZE = 0x10000;
        void* const memory = mmap(nullptr, 2 * SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        unsigned char* const end = static_cast<unsigned char*>(memory) + SIZE;
        mprotect(end, SIZE, PROT_NONE);
        std::mt19937 random(seed);
        for (int round = 0; round < 1000; ++round) {
            const unsigned length = round == 0 ? 0 : random() % 3959;
            std::generate(end - length, end, [&] { return static_cast<unsigned char>(random()); });
            FTEInfo info{};
            UDSInfo uds{};
            const int result = FTEDeSerialize(end - length, length, &info, &uds);
            const std::unique_ptr<DidInfo[]> owner(uds.didInfo);
            EXPECT_TRUE(length != 0 || result != 0);
        }
        munmap(memory, 2 * SIZE);
    };
    std::thread other(decodeRubbish, 1);  // several threads at once
    decodeRubbish(2);
    other.join();
}

}  // namespace
}  // namespace platform_test

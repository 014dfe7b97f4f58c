// The floor of the shared-memory road: a pool of blocks, a ring of entries, a bell for a receiver that sleeps, and
// nothing else. One sender, one receiver that trust each other; no services, no readers that come and go.
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

#include "benchmarks/common/System.h"
#include "benchmarks/peers/SharedMapping.h"
#include "benchmarks/peers/Transport.h"

namespace bench {
namespace {

constexpr uint32_t BLOCKS = 1000;
constexpr size_t BLOCK_STRIDE = 4032;
constexpr uint32_t ENTRIES = 1024;  // a power of two above BLOCKS: the ring is never full before the pool is empty
constexpr uint32_t TAKE_BACK_EVERY = 64;
constexpr size_t CACHE_LINE = 64;

struct Entry {
    uint32_t block;
    uint32_t size;
};

struct Shared {
    alignas(CACHE_LINE) std::atomic<uint32_t> produced{0};  // written by the sender
    alignas(CACHE_LINE) std::atomic<uint32_t> consumed{0};  // written by the receiver
    alignas(CACHE_LINE) std::atomic<uint32_t> asleep{0};    // set by the receiver, cleared by whoever ends the sleep
    alignas(CACHE_LINE) Entry entries[ENTRIES];
    alignas(CACHE_LINE) unsigned char pool[BLOCKS * BLOCK_STRIDE];
};

class RingSender : public Sender {
public:
    RingSender(Shared& shared, FileDescriptor bell) : shared_(shared), bell_(std::move(bell)), inRing_(ENTRIES)
    {
        for (uint32_t block = BLOCKS; block > 0; --block) {
            free_.push_back(block - 1);
        }
    }

    void Send(const unsigned char* data, size_t size) override
    {
        if (produced_ % TAKE_BACK_EVERY == 0 || free_.empty()) {
            TakeBack();
            while (free_.empty()) {
                pause_.Wait();
                TakeBack();
            }
        }
        const uint32_t block = free_.back();
        free_.pop_back();
        std::memcpy(shared_.pool + block * BLOCK_STRIDE, data, size);
        shared_.entries[produced_ % ENTRIES] = {block, static_cast<uint32_t>(size)};
        inRing_[produced_ % ENTRIES] = block;
        // Sequentially consistent, like the receiver's store to `asleep`: either this sees that it sleeps, or it sees
        // the record before it does.
        shared_.produced.store(++produced_, std::memory_order_seq_cst);
        if (shared_.asleep.load(std::memory_order_seq_cst) != 0 && shared_.asleep.exchange(0) != 0) {
            Check(write(bell_.Get(), "", 1), "write");
        }
        pause_.Sent();
    }

private:
    void TakeBack()
    {
        const uint32_t consumed = shared_.consumed.load(std::memory_order_acquire);
        for (; takenBack_ != consumed; ++takenBack_) {
            free_.push_back(inRing_[takenBack_ % ENTRIES]);
        }
    }

    Shared& shared_;
    FileDescriptor bell_;
    std::vector<uint32_t> free_;    // last freed, first used: its lines are still warm
    std::vector<uint32_t> inRing_;  // which block stands in which place of the ring
    uint32_t produced_ = 0;
    uint32_t takenBack_ = 0;
    PoolPause pause_{BLOCKS};
};

class RingReceiver : public Receiver {
public:
    RingReceiver(Shared& shared, FileDescriptor bell) : shared_(shared), bell_(std::move(bell))
    {
    }

    size_t Receive(unsigned char* buffer, size_t capacity) override
    {
        if (consumed_ == produced_) {
            produced_ = shared_.produced.load(std::memory_order_acquire);
            if (consumed_ == produced_ && !Sleep()) {
                return 0;
            }
        }
        const Entry entry = shared_.entries[consumed_ % ENTRIES];
        if (entry.size > capacity) {
            throw std::runtime_error("a record does not fit");
        }
        std::memcpy(buffer, shared_.pool + entry.block * BLOCK_STRIDE, entry.size);
        shared_.consumed.store(++consumed_, std::memory_order_release);
        return entry.size;
    }

private:
    // Returns true once there is a record, false when none will come.
    bool Sleep()
    {
        for (;;) {
            shared_.asleep.store(1, std::memory_order_seq_cst);
            produced_ = shared_.produced.load(std::memory_order_seq_cst);
            if (produced_ != consumed_ && shared_.asleep.exchange(0) != 0) {
                return true;
            }
            // Asleep; or the bell is about to be rung, and its byte must not stay for the next sleep.
            char rung;
            const bool ended = Check(read(bell_.Get(), &rung, 1), "read") == 0;
            produced_ = shared_.produced.load(std::memory_order_acquire);
            if (produced_ != consumed_ || ended) {
                return produced_ != consumed_;
            }
        }
    }

    Shared& shared_;
    FileDescriptor bell_;
    uint32_t produced_ = 0;
    uint32_t consumed_ = 0;
};

class RingAndPool : public Transport {
public:
    RingAndPool()
    {
        int fds[2];
        Check(pipe(fds), "pipe");
        bellOut_ = FileDescriptor(fds[0]);
        bellIn_ = FileDescriptor(fds[1]);
    }
    std::unique_ptr<Receiver> OpenReceiver() override
    {
        bellIn_.Close();
        return std::make_unique<RingReceiver>(*mapping_, std::move(bellOut_));
    }
    std::unique_ptr<Sender> OpenSender() override
    {
        bellOut_.Close();
        return std::make_unique<RingSender>(*mapping_, std::move(bellIn_));
    }

private:
    SharedMapping<Shared> mapping_;
    FileDescriptor bellOut_;
    FileDescriptor bellIn_;
};

}  // namespace

std::unique_ptr<Transport> MakeRingAndPool(size_t)
{
    return std::make_unique<RingAndPool>();
}

}  // namespace bench

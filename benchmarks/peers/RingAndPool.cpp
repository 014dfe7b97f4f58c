// The floor of the shared-memory road: a pool of blocks, a ring of entries, the kernel's cheapest bells for a receiver
// that sleeps, and nothing else. One sender, one receiver that trust each other; no services, no readers that come and
// go.
#include <linux/futex.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>
#include <vector>

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
    uint32_t size;  // 0 ends the stream
};

struct Shared {
    alignas(CACHE_LINE) std::atomic<uint32_t> produced{0};  // written by the sender
    alignas(CACHE_LINE) std::atomic<uint32_t> consumed{0};  // written by the receiver
    alignas(CACHE_LINE) std::atomic<uint32_t> asleep{0};    // set by the receiver, cleared by whoever ends the sleep
    alignas(CACHE_LINE) Entry entries[ENTRIES];
    alignas(CACHE_LINE) unsigned char pool[BLOCKS * BLOCK_STRIDE];
};

struct Unmapping {
    void operator()(Shared* shared) const
    {
        munmap(shared, sizeof(Shared));
    }
};

std::unique_ptr<Shared, Unmapping> MapShared()
{
    void* memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (memory == MAP_FAILED) {
        ThrowErrno("mmap");
    }
    return std::unique_ptr<Shared, Unmapping>(new (memory) Shared);
}

// The receiver sleeps in a read.
class EventFd {
public:
    void Ring(std::atomic<uint32_t>&)
    {
        Check(eventfd_write(fd_.Get(), 1), "eventfd_write");
    }
    void Sleep(std::atomic<uint32_t>&)
    {
        eventfd_t rung;
        Check(eventfd_read(fd_.Get(), &rung), "eventfd_read");
    }

private:
    const FileDescriptor fd_{Check(eventfd(0, EFD_CLOEXEC), "eventfd")};
};

// The receiver sleeps for as long as it is said to be asleep.
class Futex {
public:
    void Ring(std::atomic<uint32_t>& asleep)
    {
        Check(syscall(SYS_futex, &asleep, FUTEX_WAKE, 1, nullptr, nullptr, 0), "FUTEX_WAKE");
    }
    void Sleep(std::atomic<uint32_t>& asleep)
    {
        if (syscall(SYS_futex, &asleep, FUTEX_WAIT, 1, nullptr, nullptr, 0) < 0 && errno != EAGAIN) {
            ThrowErrno("FUTEX_WAIT");
        }
    }
};

template <class Bell>
struct RingWith {
    std::unique_ptr<Shared, Unmapping> shared = MapShared();
    Bell bell;
};

template <class Bell>
class RingSender : public Sender {
public:
    explicit RingSender(RingWith<Bell>& ring) : shared_(*ring.shared), bell_(ring.bell), inRing_(ENTRIES)
    {
        for (uint32_t block = BLOCKS; block > 0; --block) {
            free_.push_back(block - 1);
        }
    }
    ~RingSender() override
    {
        Send(reinterpret_cast<const unsigned char*>(""), 0);
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
            bell_.Ring(shared_.asleep);
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
    Bell& bell_;
    std::vector<uint32_t> free_;    // last freed, first used: its lines are still warm
    std::vector<uint32_t> inRing_;  // which block stands in which place of the ring
    uint32_t produced_ = 0;
    uint32_t takenBack_ = 0;
    PoolPause pause_{BLOCKS};
};

template <class Bell>
class RingReceiver : public Receiver {
public:
    explicit RingReceiver(RingWith<Bell>& ring) : shared_(*ring.shared), bell_(ring.bell)
    {
    }

    size_t Receive(unsigned char* buffer, size_t capacity) override
    {
        if (consumed_ == produced_) {
            produced_ = shared_.produced.load(std::memory_order_acquire);
            while (consumed_ == produced_) {
                Sleep();
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
    void Sleep()
    {
        shared_.asleep.store(1, std::memory_order_seq_cst);
        produced_ = shared_.produced.load(std::memory_order_seq_cst);
        if (produced_ == consumed_ || shared_.asleep.exchange(0) == 0) {
            // Asleep; or the bell is about to be rung, and that must not be left for the next sleep.
            bell_.Sleep(shared_.asleep);
            produced_ = shared_.produced.load(std::memory_order_acquire);
        }
    }

    Shared& shared_;
    Bell& bell_;
    uint32_t produced_ = 0;
    uint32_t consumed_ = 0;
};

template <class Bell>
using Ring = TransportOf<RingSender<Bell>, RingReceiver<Bell>, RingWith<Bell>>;

}  // namespace

std::unique_ptr<Transport> MakeRingWithEventFd(size_t)
{
    return std::make_unique<Ring<EventFd>>();
}

std::unique_ptr<Transport> MakeRingWithFutex(size_t)
{
    return std::make_unique<Ring<Futex>>();
}

}  // namespace bench

// The floor of a latency: one system call wakes a receiver that sleeps in one other. The number and the time lie in
// shared memory, so that nothing but the wake-up is left to pay for.
#include <linux/futex.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <stdexcept>

#include "benchmarks/common/StampedRecord.h"
#include "benchmarks/common/System.h"
#include "benchmarks/peers/SharedMapping.h"
#include "benchmarks/peers/Transport.h"

namespace bench {
namespace {

constexpr uint32_t SLOTS = 4096;
constexpr size_t CACHE_LINE = 64;
constexpr useconds_t NO_ROOM_US = 100;

struct Slot {
    size_t size;  // 0 ends the stream
    unsigned char record[StampedRecord::SIZE_MIN];
};

struct Slots {
    alignas(CACHE_LINE) std::atomic<uint32_t> produced{0};  // written by the sender
    alignas(CACHE_LINE) std::atomic<uint32_t> consumed{0};  // written by the receiver
    alignas(CACHE_LINE) Slot slots[SLOTS];
};

// The receiver sleeps in a read.
class EventFd {
public:
    explicit EventFd(Slots&) : fd_(Check(eventfd(0, EFD_CLOEXEC), "eventfd"))
    {
    }
    void Wake()
    {
        Check(eventfd_write(fd_.Get(), 1), "eventfd_write");
    }
    void SleepUnlessMoreThan(uint32_t)
    {
        eventfd_t rung;
        Check(eventfd_read(fd_.Get(), &rung), "eventfd_read");
    }

private:
    const FileDescriptor fd_;
};

// The receiver sleeps for as long as the count of records is what it has seen.
class Futex {
public:
    explicit Futex(Slots& slots) : word_(reinterpret_cast<uint32_t*>(&slots.produced))
    {
    }
    void Wake()
    {
        Check(syscall(SYS_futex, word_, FUTEX_WAKE, 1, nullptr, nullptr, 0), "FUTEX_WAKE");
    }
    void SleepUnlessMoreThan(uint32_t seen)
    {
        if (syscall(SYS_futex, word_, FUTEX_WAIT, seen, nullptr, nullptr, 0) < 0 && errno != EAGAIN) {
            ThrowErrno("FUTEX_WAIT");
        }
    }

private:
    uint32_t* const word_;
};

template <class Bell>
class WakeSender : public Sender {
public:
    WakeSender(Slots& slots, Bell& bell) : slots_(slots), bell_(bell)
    {
    }
    ~WakeSender() override
    {
        Put(nullptr, 0);
    }
    void Send(const unsigned char* data, size_t size) override
    {
        while (produced_ - slots_.consumed.load(std::memory_order_acquire) >= SLOTS - 1) {
            usleep(NO_ROOM_US);
        }
        Put(data, size);
    }

private:
    void Put(const unsigned char* data, size_t size)
    {
        Slot& slot = slots_.slots[produced_ % SLOTS];
        slot.size = size;
        if (size != 0) {
            std::memcpy(slot.record, data, size);
        }
        slots_.produced.store(++produced_, std::memory_order_release);
        bell_.Wake();
    }

    Slots& slots_;
    Bell& bell_;
    uint32_t produced_ = 0;
};

template <class Bell>
class WakeReceiver : public Receiver {
public:
    WakeReceiver(Slots& slots, Bell& bell) : slots_(slots), bell_(bell)
    {
    }
    size_t Receive(unsigned char* buffer, size_t) override
    {
        while (slots_.produced.load(std::memory_order_acquire) == consumed_) {
            bell_.SleepUnlessMoreThan(consumed_);
        }
        const Slot& slot = slots_.slots[consumed_ % SLOTS];
        const size_t size = slot.size;
        std::memcpy(buffer, slot.record, size);
        slots_.consumed.store(++consumed_, std::memory_order_release);
        return size;
    }

private:
    Slots& slots_;
    Bell& bell_;
    uint32_t consumed_ = 0;
};

template <class Bell>
class Wake : public Transport {
public:
    explicit Wake(size_t recordSize)
    {
        if (recordSize > sizeof(Slot::record)) {
            throw std::invalid_argument("a wake-up carries a number and a time, no more");
        }
    }
    std::unique_ptr<Receiver> OpenReceiver() override
    {
        return std::make_unique<WakeReceiver<Bell>>(*slots_, bell_);
    }
    std::unique_ptr<Sender> OpenSender() override
    {
        return std::make_unique<WakeSender<Bell>>(*slots_, bell_);
    }

private:
    SharedMapping<Slots> slots_;
    Bell bell_{*slots_};
};

}  // namespace

std::unique_ptr<Transport> MakeEventFdWake(size_t recordSize)
{
    return std::make_unique<Wake<EventFd>>(recordSize);
}

std::unique_ptr<Transport> MakeFutexWake(size_t recordSize)
{
    return std::make_unique<Wake<Futex>>(recordSize);
}

}  // namespace bench

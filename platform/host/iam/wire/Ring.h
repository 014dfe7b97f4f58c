// The queue between one service and one reader: a ring in memory that the two processes share, and its two ends.
//
// The service appends entries and counts them in `appended`; the reader takes them in order and counts them in
// `consumed`. Each side writes to a memory of its own, which the other only loads from: what the reader does to its
// memory cannot delay the service, and the service's is sealed against it. Each side keeps its own count and what it
// knows of the other's in private memory, and believes the shared word of the other side only within the bounds of
// CountIsSound. The ring has at least as many entries as the pool has blocks, and every entry holds a block: it is
// never full.
//
// Sleeping. Before the reader sleeps it stores in `sleeping` the count at which it does, K, then loads `appended`, and
// sleeps in the kernel only while that is K. The service, after it has stored `appended` = K + 1, loads `sleeping` and
// wakes who sleeps at K. No wake-up is lost: these four accesses are sequentially consistent, so either the reader
// loads K + 1 and stays awake, or the service loads the mark and wakes; and because the kernel compares `appended` with
// K once more, in one step with going to sleep, a wake-up that comes before that step finds a reader that no longer
// sleeps. One append, the one that ends the emptiness, wakes; those that follow find no mark of their own and cost no
// system call, though the reader may not have got up yet.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_RING_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_RING_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#include "platform/host/common/Descriptor.h"
#include "platform/host/iam/wire/Bell.h"
#include "platform/host/iam/wire/Protocol.h"

namespace host_platform::iam {

struct ServiceWords {
    alignas(RING_LINE) BellWord appended;
    alignas(RING_LINE) std::atomic<uint32_t> revoked;  // set once: blocks were taken back unread
    std::atomic<uint64_t> lost;                        // records that an observer missed because it was too slow
};
struct ReaderWords {
    alignas(RING_LINE) std::atomic<uint32_t> consumed;
    alignas(RING_LINE) std::atomic<uint64_t> sleeping;  // a SleepMark, or 0; rests while records flow
};
static_assert(sizeof(ServiceWords) == SERVICE_WORDS_BYTES && sizeof(ReaderWords) == READER_WORDS_BYTES &&
                  std::atomic<uint64_t>::is_always_lock_free && sizeof(std::atomic<uint64_t>) == sizeof(uint64_t),
              "the ring is shared between processes");

// Says that the reader sleeps, or is about to, at this count. Never 0.
constexpr uint64_t SleepMark(uint32_t count)
{
    return uint64_t{1} << 32 | count;
}

// The service's end.
class RingWriter {
public:
    RingWriter() = default;

    // Takes over fresh, zeroed memories, its own of RingBytes(entries) bytes.
    RingWriter(Mapping own, Mapping readers, uint32_t entries)
        : own_(std::move(own)),
          readers_(std::move(readers)),
          words_(new (own_.get()) ServiceWords),
          entries_(reinterpret_cast<std::atomic<uint64_t>*>(own_.get() + SERVICE_WORDS_BYTES)),
          reader_(std::launder(reinterpret_cast<const ReaderWords*>(readers_.get()))),
          mask_(entries - 1)
    {
    }

    // Returns whether the reader must be woken, by Word().
    bool Append(uint32_t block, uint32_t length)
    {
        // Relaxed: the store to `appended` releases the entry, and the block's bytes with it.
        entries_[appended_ & mask_].store(PackEntry(block, length), std::memory_order_relaxed);
        const uint64_t sleepsHere = SleepMark(appended_);
        words_->appended.store(++appended_, std::memory_order_seq_cst);
        return reader_->sleeping.load(std::memory_order_seq_cst) == sleepsHere;
    }

    const BellWord* Word() const
    {
        return &words_->appended;
    }

    uint32_t Appended() const
    {
        return appended_;
    }
    // The block of the entry that was appended at this count. Nobody but this side writes entries.
    uint32_t BlockAt(uint32_t count) const
    {
        return static_cast<uint32_t>(entries_[count & mask_].load(std::memory_order_relaxed));
    }

    // As the reader claims, unchecked. Acquire: its copying is over before a block is used again.
    uint32_t ClaimedConsumed() const
    {
        return reader_->consumed.load(std::memory_order_acquire);
    }

    // From here on the reader delivers nothing that may have been overwritten: whoever sees a byte that is written
    // into a block after this also sees the mark.
    void Revoke()
    {
        words_->revoked.store(1, std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_release);
    }

    // An observer has missed a record. Relaxed: it is a figure.
    void CountLost()
    {
        words_->lost.store(++lost_, std::memory_order_relaxed);
    }

private:
    Mapping own_;
    Mapping readers_;
    ServiceWords* words_ = nullptr;
    std::atomic<uint64_t>* entries_ = nullptr;
    const ReaderWords* reader_ = nullptr;
    uint32_t mask_ = 0;
    uint32_t appended_ = 0;
    uint64_t lost_ = 0;
};

// The reader's end. One thread at a time.
class RingReader {
public:
    RingReader() = default;

    RingReader(Mapping service, Mapping own, uint32_t entries)
        : service_(std::move(service)),
          own_(std::move(own)),
          words_(std::launder(reinterpret_cast<const ServiceWords*>(service_.get()))),
          entries_(reinterpret_cast<const std::atomic<uint64_t>*>(service_.get() + SERVICE_WORDS_BYTES)),
          reader_(new (own_.get()) ReaderWords),
          mask_(entries - 1)
    {
    }

    explicit operator bool() const
    {
        return words_ != nullptr;
    }

    enum class State { EMPTY, READY, BROKEN };

    State Look()
    {
        if (known_ != consumed_) {
            return State::READY;
        }
        // Acquire: the entry and the block are read after it.
        return Learn(words_->appended.load(std::memory_order_acquire));
    }

    // Announces, once Look has returned EMPTY, that this side is about to sleep; it must not unless this returns EMPTY.
    State FallAsleep()
    {
        reader_->sleeping.store(SleepMark(known_), std::memory_order_seq_cst);
        return Learn(words_->appended.load(std::memory_order_seq_cst));
    }

    // Sleeps until the service wakes it, or somebody does who knows Word().
    int Sleep() const
    {
        return SleepWhile(words_->appended, known_);
    }

    void WakeUp()
    {
        // Relaxed: if the service still sees the mark, it wakes once for nothing.
        reader_->sleeping.store(0, std::memory_order_relaxed);
    }

    const BellWord* Word() const
    {
        return &words_->appended;
    }

    // The first entry; only when READY. Relaxed: `appended` was acquired. Read once, because the other side could
    // change it at any time.
    uint64_t Front() const
    {
        return entries_[consumed_ & mask_].load(std::memory_order_relaxed);
    }

    // Whether the entry so far behind the first is known to be there, and that entry.
    bool HasAhead(uint32_t distance) const
    {
        return known_ - consumed_ > distance;
    }
    uint64_t Ahead(uint32_t distance) const
    {
        return entries_[(consumed_ + distance) & mask_].load(std::memory_order_relaxed);
    }

    // After a block has been copied: whether the copy may hold bytes of another record.
    bool RevokedMeanwhile() const
    {
        std::atomic_thread_fence(std::memory_order_acquire);
        return words_->revoked.load(std::memory_order_relaxed) != 0;
    }

    uint64_t Lost() const
    {
        return words_->lost.load(std::memory_order_relaxed);
    }

    void Pop()
    {
        // Release: the service uses the block again only after it has been copied.
        reader_->consumed.store(++consumed_, std::memory_order_release);
    }

private:
    State Learn(uint32_t appended)
    {
        if (!CountIsSound(appended, known_, mask_ + 1 - (known_ - consumed_))) {
            return State::BROKEN;
        }
        known_ = appended;
        return known_ != consumed_ ? State::READY : State::EMPTY;
    }

    Mapping service_;
    Mapping own_;
    const ServiceWords* words_ = nullptr;
    const std::atomic<uint64_t>* entries_ = nullptr;
    ReaderWords* reader_ = nullptr;
    uint32_t mask_ = 0;
    uint32_t consumed_ = 0;
    uint32_t known_ = 0;  // appended, as far as this side has looked
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_RING_H

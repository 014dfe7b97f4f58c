// The queue between one service and one reader: a ring in memory that the two processes share, and its two ends.
//
// The service appends entries and counts them in `appended`; the reader takes them in order and counts them in
// `consumed`. Each side keeps its own count and what it knows of the other's in private memory, and believes the shared
// word of the other side only within the bounds of CountIsSound. The ring has at least as many entries as the pool has
// blocks, and every entry holds a block: it is never full.
//
// Sleeping without losing a wake-up: the reader stores `sleeping`, then loads `appended`; the service stores
// `appended`, then loads `sleeping`. All four are sequentially consistent, so at least one of the two sees the other's
// store: either the reader finds the record and stays awake, or the service finds the flag and rings.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_RING_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_RING_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#include "platform/host/common/Descriptor.h"
#include "platform/host/iam/wire/Fence.h"
#include "platform/host/iam/wire/Protocol.h"

namespace host_platform::iam {

struct RingHeader {
    alignas(RING_LINE) std::atomic<uint64_t> appended;  // written by the service
    alignas(RING_LINE) std::atomic<uint64_t> consumed;  // written by the reader
    alignas(RING_LINE) std::atomic<uint32_t> sleeping;  // set by the reader, cleared by both; rests while records flow
    alignas(RING_LINE) std::atomic<uint32_t> revoked;   // set once by the service: blocks were taken back unread
};
static_assert(sizeof(RingHeader) == RING_HEADER_BYTES && std::atomic<uint64_t>::is_always_lock_free &&
                  sizeof(std::atomic<uint64_t>) == sizeof(uint64_t),
              "the ring is shared between processes");

// The service's end.
class RingWriter {
public:
    RingWriter() = default;

    // Takes over fresh, zeroed memory of RingBytes(entries) bytes.
    RingWriter(Mapping memory, uint32_t entries)
        : memory_(std::move(memory)),
          header_(new (memory_.Bytes()) RingHeader),
          entries_(reinterpret_cast<std::atomic<uint64_t>*>(memory_.Bytes() + RING_HEADER_BYTES)),
          mask_(entries - 1)
    {
    }

    // Returns whether the reader sleeps and must be rung. Afterwards it counts as awake, because only one bell is due
    // for one sleep; a reader that sleeps again meanwhile is woken once for nothing by the bell that follows.
    bool Append(uint32_t block, uint32_t length)
    {
        // Relaxed: the store to `appended` releases the entry, and the block's bytes with it.
        entries_[appended_ & mask_].store(PackEntry(block, length), std::memory_order_relaxed);
        header_->appended.store(++appended_, std::memory_order_seq_cst);
        if (header_->sleeping.load(std::memory_order_seq_cst) == 0) {
            return false;
        }
        header_->sleeping.store(0, std::memory_order_relaxed);  // the bell, a system call, comes after it
        return true;
    }

    uint64_t Appended() const
    {
        return appended_;
    }

    // As the reader claims, unchecked. Acquire: its copying is over before a block is used again.
    uint64_t ClaimedConsumed() const
    {
        return header_->consumed.load(std::memory_order_acquire);
    }

    // From here on the reader delivers nothing that may have been overwritten: whoever sees a byte that is written
    // into a block after this also sees the mark.
    void Revoke()
    {
        header_->revoked.store(1, std::memory_order_relaxed);
        OrderStores();
    }

private:
    Mapping memory_;
    RingHeader* header_ = nullptr;
    std::atomic<uint64_t>* entries_ = nullptr;
    uint64_t mask_ = 0;
    uint64_t appended_ = 0;
};

// The reader's end. One thread at a time.
class RingReader {
public:
    RingReader() = default;

    RingReader(Mapping memory, uint32_t entries)
        : memory_(std::move(memory)),
          header_(std::launder(reinterpret_cast<RingHeader*>(memory_.Bytes()))),
          entries_(reinterpret_cast<std::atomic<uint64_t>*>(memory_.Bytes() + RING_HEADER_BYTES)),
          mask_(entries - 1)
    {
    }

    enum class State { EMPTY, READY, BROKEN };

    State Look()
    {
        if (known_ != consumed_) {
            return State::READY;
        }
        // Acquire: the entry and the block are read after it.
        return Learn(header_->appended.load(std::memory_order_acquire));
    }

    // Announces that this side is about to sleep; it must not unless this returns EMPTY.
    State FallAsleep()
    {
        header_->sleeping.store(1, std::memory_order_seq_cst);
        return Learn(header_->appended.load(std::memory_order_seq_cst));
    }

    void WakeUp()
    {
        // Relaxed: if the service still sees it set, it rings once for nothing.
        header_->sleeping.store(0, std::memory_order_relaxed);
    }

    // The first entry; only when READY. Relaxed: `appended` was acquired. Read once, because the other side could
    // change it at any time.
    uint64_t Front() const
    {
        return entries_[consumed_ & mask_].load(std::memory_order_relaxed);
    }

    // Whether more entries than the first are known to be there; Second() is the one after it.
    bool HasSecond() const
    {
        return known_ - consumed_ > 1;
    }
    uint64_t Second() const
    {
        return entries_[(consumed_ + 1) & mask_].load(std::memory_order_relaxed);
    }

    // After a block has been copied: whether the copy may hold bytes of another record.
    bool RevokedMeanwhile() const
    {
        OrderLoads();
        return header_->revoked.load(std::memory_order_relaxed) != 0;
    }

    void Pop()
    {
        // Release: the service uses the block again only after it has been copied.
        header_->consumed.store(++consumed_, std::memory_order_release);
    }

private:
    State Learn(uint64_t appended)
    {
        if (!CountIsSound(appended, known_, mask_ + 1 - (known_ - consumed_))) {
            return State::BROKEN;
        }
        known_ = appended;
        return known_ != consumed_ ? State::READY : State::EMPTY;
    }

    Mapping memory_;
    RingHeader* header_ = nullptr;
    std::atomic<uint64_t>* entries_ = nullptr;
    uint64_t mask_ = 0;
    uint64_t consumed_ = 0;
    uint64_t known_ = 0;  // appended, as far as this side has looked
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_RING_H

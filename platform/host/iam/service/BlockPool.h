// The blocks of a pool of shared memory, and the private record of where each of them is.
//
// Invariant: every block is in exactly one place: free, allocated (with the caller), or queued in one BlockFifo. The
// records, the free stack and the links of the queues are private to this process; nothing a reader does can touch
// them. Blocks are taken last-freed-first, so that a few of them, still warm in the caches, serve a stream that is
// keeping up.
//
// Not safe for use by several threads at once: the service's lock guards it.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_BLOCK_POOL_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_BLOCK_POOL_H

#include <cstdint>
#include <memory>

#include "platform/host/common/Descriptor.h"
#include "platform/host/common/Status.h"
#include "platform/host/iam/wire/Protocol.h"

namespace host_platform::iam {

// The blocks in one reader's queue, oldest first, linked through the pool's records.
struct BlockFifo {
    uint32_t first = 0;
    uint32_t last = 0;
    uint32_t count = 0;
};

class BlockPool {
public:
    Status Create(const PoolShape& shape);

    const PoolShape& Shape() const
    {
        return shape_;
    }
    const UniqueFd& Memory() const
    {
        return memoryFd_;
    }
    bool Exhausted() const
    {
        return freeCount_ == 0;
    }
    uint32_t Queued() const
    {
        return queued_;
    }

    // Takes a free block for a record of `length` bytes; there is one, and `length` fits. `use` is what this use of the
    // block is known by.
    uint32_t Allocate(uint32_t length, uint64_t use);

    // Whether the caller of Allocate still has the block under this use.
    bool IsAllocated(uint32_t block, uint64_t use) const;

    // The next three need an allocated block.
    bool Write(uint32_t block, const void* data, uint32_t size, uint32_t offset);
    void Free(uint32_t block);
    uint32_t Queue(uint32_t block, BlockFifo& fifo);  // returns the record's length

    // Returns the oldest `count` blocks of the queue to the free ones; it holds at least that many.
    void TakeBack(uint32_t count, BlockFifo& fifo);

private:
    enum class Place : uint16_t { FREE, ALLOCATED, QUEUED };
    struct Record {
        uint64_t use = 0;
        uint32_t length = 0;
        uint16_t next = 0;  // the following block of the same queue
        Place place = Place::FREE;
    };
    static_assert(POOL_BLOCKS_MAX <= UINT16_MAX, "a link has 16 bits");

    PoolShape shape_;
    UniqueFd memoryFd_;
    Mapping memory_;
    std::unique_ptr<Record[]> records_;
    std::unique_ptr<uint16_t[]> free_;  // a stack with room for all blocks
    uint32_t freeCount_ = 0;
    uint32_t queued_ = 0;
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_BLOCK_POOL_H

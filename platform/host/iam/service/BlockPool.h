// The blocks of a pool of shared memory, and the private record of where each of them is.
//
// Invariant: every block is in exactly one place: free, allocated (with the caller), or queued in one BlockQueue. The
// records and the free stack are private to this process; nothing a reader does can touch them. Blocks are taken
// last-freed-first, so that a few of them, still warm in the caches, serve a stream that is keeping up.
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
    uint32_t Queue(uint32_t block);  // returns the record's length

    // Makes a queued block free again.
    void TakeBack(uint32_t block);

    const unsigned char* Bytes(uint32_t block) const
    {
        return memory_.get() + size_t{block} * shape_.blockStride;
    }

private:
    enum class Place : uint32_t { FREE, ALLOCATED, QUEUED };
    struct Record {
        uint64_t use = 0;
        uint32_t length = 0;
        Place place = Place::FREE;
    };

    PoolShape shape_;
    UniqueFd memoryFd_;
    Mapping memory_;
    std::unique_ptr<Record[]> records_;
    std::unique_ptr<uint32_t[]> free_;  // a stack with room for all blocks
    uint32_t freeCount_ = 0;
    uint32_t queued_ = 0;
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_BLOCK_POOL_H

#include "platform/host/iam/service/BlockPool.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "platform/host/iam/wire/Prefetch.h"
#include "platform/host/iam/wire/SharedMemory.h"

namespace host_platform::iam {

Status BlockPool::Create(const PoolShape& shape)
{
    records_.reset(new (std::nothrow) Record[shape.blockCount]);
    free_.reset(new (std::nothrow) uint32_t[shape.blockCount]);
    if (records_ == nullptr || free_ == nullptr) {
        return {ENOMEM, "out of memory"};
    }
    for (uint32_t block = shape.blockCount; block > 0; --block) {
        free_[freeCount_++] = block - 1;
    }
    shape_ = shape;
    return CreateSharedMemory("iam-pool", shape.bytes, Writer::SERVICE, memoryFd_, memory_);
}

uint32_t BlockPool::Allocate(uint32_t length, uint64_t use)
{
    const uint32_t block = free_[--freeCount_];
    Record& record = records_[block];
    record.use = use;
    record.length = length;
    record.place = Place::ALLOCATED;
    if (freeCount_ != 0) {  // the next record, probably of this size, will stand there
        Prefetch<true>(memory_.get() + size_t{free_[freeCount_ - 1]} * shape_.blockStride, length);
    }
    return block;
}

bool BlockPool::IsAllocated(uint32_t block, uint64_t use) const
{
    return block < shape_.blockCount && records_[block].place == Place::ALLOCATED && records_[block].use == use;
}

bool BlockPool::Write(uint32_t block, const void* data, uint32_t size, uint32_t offset)
{
    const uint32_t room = records_[block].length;
    if (offset > room || size > room - offset) {
        return false;
    }
    if (size != 0) {
        std::memcpy(memory_.get() + size_t{block} * shape_.blockStride + offset, data, size);
    }
    return true;
}

void BlockPool::Free(uint32_t block)
{
    records_[block].place = Place::FREE;
    free_[freeCount_++] = block;
}

uint32_t BlockPool::Queue(uint32_t block)
{
    records_[block].place = Place::QUEUED;
    ++queued_;
    return records_[block].length;
}

void BlockPool::TakeBack(uint32_t block)
{
    --queued_;
    Free(block);
}

}  // namespace host_platform::iam

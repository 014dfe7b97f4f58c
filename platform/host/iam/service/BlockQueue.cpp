#include "platform/host/iam/service/BlockQueue.h"

#include <utility>

#include "platform/host/iam/wire/SharedMemory.h"

namespace host_platform::iam {

Status BlockQueue::Create(uint32_t entries, Memories& memories)
{
    Mapping own;
    Mapping readers;
    Status status = CreateSharedMemory("iam-ring", RingBytes(entries), Writer::SERVICE, memories.service, own);
    if (!status.Failed()) {
        status = CreateSharedMemory("iam-reader", READER_WORDS_BYTES, Writer::READER, memories.reader, readers);
    }
    if (!status.Failed()) {
        ring_ = RingWriter(std::move(own), std::move(readers), entries);
    }
    return status;
}

BlockQueue::Appended BlockQueue::Append(uint32_t block, BlockPool& pool)
{
    const uint32_t length = pool.Queue(block, blocks_);
    return {length, ring_.Append(block, length) ? ring_.Word() : nullptr};
}

bool BlockQueue::TakeBackConsumed(BlockPool& pool)
{
    const uint32_t consumed = ring_.ClaimedConsumed();
    if (!CountIsSound(consumed, takenBack_, blocks_.count)) {
        return false;
    }
    pool.TakeBack(consumed - takenBack_, blocks_);
    takenBack_ = consumed;
    return true;
}

void BlockQueue::MarkRevoked()
{
    ring_.Revoke();
}

void BlockQueue::TakeBackAll(BlockPool& pool)
{
    takenBack_ += blocks_.count;
    pool.TakeBack(blocks_.count, blocks_);
}

}  // namespace host_platform::iam

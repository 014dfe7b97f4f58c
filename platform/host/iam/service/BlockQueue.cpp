#include "platform/host/iam/service/BlockQueue.h"

#include <utility>

#include "platform/host/iam/wire/SharedMemory.h"

namespace host_platform::iam {

Status BlockQueue::Create(uint32_t entries, UniqueFd& memory)
{
    Mapping mapping;
    const Status status = CreateSharedMemory("iam-ring", RingBytes(entries), Sharing::READ_WRITE, memory, mapping);
    if (!status.Failed()) {
        ring_ = RingWriter(std::move(mapping), entries);
    }
    return status;
}

BlockQueue::Appended BlockQueue::Append(uint32_t block, BlockPool& pool)
{
    const uint32_t length = pool.Queue(block, blocks_);
    return {length, ring_.Append(block, length)};
}

bool BlockQueue::TakeBackConsumed(BlockPool& pool)
{
    const uint64_t consumed = ring_.ClaimedConsumed();
    if (!CountIsSound(consumed, takenBack_, blocks_.count)) {
        return false;
    }
    pool.TakeBack(static_cast<uint32_t>(consumed - takenBack_), blocks_);
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

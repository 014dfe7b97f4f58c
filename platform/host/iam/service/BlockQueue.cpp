#include "platform/host/iam/service/BlockQueue.h"

#include <sys/socket.h>

#include <utility>

#include "platform/host/iam/Messages.h"
#include "platform/host/iam/SharedMemory.h"

namespace host_platform::iam {

Status BlockQueue::Offer()
{
    Status status = bell_.Create();
    if (status.Failed()) {
        return status;
    }
    Message message;
    message.type = static_cast<uint16_t>(MessageType::RING);
    message.bytes = RingBytes(RING_ENTRIES);
    message.count = RING_ENTRIES;
    UniqueFd memoryFd;
    Mapping memory;
    status = CreateSharedMemory("iam-ring", message.bytes, Sharing::READ_WRITE, memoryFd, memory);
    if (status.Failed()) {
        return status;
    }
    ring_ = RingWriter(std::move(memory), RING_ENTRIES);
    return SendMessage(socket_, message, {memoryFd.Get(), bell_.ReaderEnd()});
}

Status BlockQueue::SendPool(const BlockPool& pool) const
{
    Message message;
    message.type = static_cast<uint16_t>(MessageType::POOL);
    message.bytes = pool.Shape().bytes;
    message.count = pool.Shape().blockCount;
    message.stride = pool.Shape().blockStride;
    return SendMessage(socket_, message, {pool.Fd()});
}

uint32_t BlockQueue::Append(uint32_t block, BlockPool& pool)
{
    const uint32_t length = pool.Queue(block, blocks_);
    if (ring_.Append(block, length)) {
        bell_.Ring();
    }
    return length;
}

void BlockQueue::TakeBackConsumed(BlockPool& pool)
{
    const uint64_t consumed = ring_.ClaimedConsumed();
    if (!CountIsSound(consumed, takenBack_, blocks_.count)) {
        CutOff(&pool, "its ring makes no sense");
        return;
    }
    pool.TakeBack(static_cast<uint32_t>(consumed - takenBack_), blocks_);
    takenBack_ = consumed;
}

void BlockQueue::CutOff(BlockPool* pool, const char* cause)
{
    if (cutOffCause_ != nullptr) {
        return;
    }
    cutOffCause_ = cause;
    ring_.Revoke();
    shutdown(socket_, SHUT_RDWR);
    if (pool != nullptr) {
        takenBack_ += blocks_.count;
        pool->TakeBack(blocks_.count, blocks_);
    }
}

}  // namespace host_platform::iam

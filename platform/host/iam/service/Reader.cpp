#include "platform/host/iam/service/Reader.h"

#include <cstdio>
#include <utility>

#include "platform/host/iam/wire/Messages.h"

namespace host_platform::iam {
namespace {

constexpr auto STALL_TIME = std::chrono::milliseconds(200);

}  // namespace

Reader::Reader(UniqueFd connection, int process) : socket(std::move(connection)), pid(process)
{
}

void Reader::Name(const char* resource, uint64_t handle)
{
    snprintf(label, sizeof label, "%s (pid %d)", resource, pid);
    file.name = label;
    file.dataHandle = handle;
}

Status Reader::Offer()
{
    Message message;
    message.type = static_cast<uint16_t>(MessageType::RING);
    message.bytes = RingBytes(RING_ENTRIES);
    message.count = RING_ENTRIES;
    BlockQueue::Memories memories;
    const Status made = queue.Create(RING_ENTRIES, memories);
    return made.Failed() ? made : SendMessage(socket.Get(), message, {memories.service.Get(), memories.reader.Get()});
}

Status Reader::SendPool(const BlockPool& pool) const
{
    Message message;
    message.type = static_cast<uint16_t>(MessageType::POOL);
    message.bytes = pool.Shape().bytes;
    message.count = pool.Shape().blockCount;
    message.stride = pool.Shape().blockStride;
    return SendMessage(socket.Get(), message, {pool.Memory().Get()});
}

void Reader::BeginToSupersede(Clock::time_point now)
{
    consumedWhenSeen_ = queue.ClaimedConsumed();
    movedAt_ = now;
}

bool Reader::HasStalled(Clock::time_point now)
{
    const uint32_t consumed = queue.ClaimedConsumed();
    if (consumed != consumedWhenSeen_) {
        consumedWhenSeen_ = consumed;
        movedAt_ = now;
    }
    return now - movedAt_ >= STALL_TIME;
}

void Reader::TakeBlocks(BlockPool* pool)
{
    queue.MarkRevoked();
    if (pool != nullptr) {
        queue.TakeBackAll(*pool);
    }
}

void Reader::CutOff(BlockPool* pool, const char* cause)
{
    if (cutOffCause == nullptr) {
        cutOffCause = cause;
        TakeBlocks(pool);
    }
}

}  // namespace host_platform::iam

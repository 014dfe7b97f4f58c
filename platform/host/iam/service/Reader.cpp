#include "platform/host/iam/service/Reader.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>
#include <utility>

namespace host_platform::iam {
namespace {

constexpr auto STALL_TIME = std::chrono::milliseconds(200);

}  // namespace

Reader::Reader(UniqueFd connection, int process) : socket(std::move(connection)), pid(process)
{
}

void Reader::Name(const char* resource, uint64_t handle)
{
    snprintf(label, sizeof(label), "%s (pid %d)", resource, pid);
    file.name = label;
    file.dataHandle = handle;
}

Status Reader::Offer()
{
    const uint32_t entries = role == Role::READER ? RING_ENTRIES : OBSERVER_BLOCKS;
    BlockQueue::Memories memories;
    return queue.Create(entries, memories).Then([&] {
        return SendMessage(socket, Compose(MessageType::RING, RingBytes(entries), entries, 0),
                           {memories.service.Get(), memories.reader.Get()});
    });
}

Status Reader::Introduce(const BlockPool& pool)
{
    PoolShape shape = pool.Shape();
    if (role == Role::OBSERVER) {
        shape.blockCount = std::min(shape.blockCount, OBSERVER_BLOCKS);
        shape.bytes = uint64_t{shape.blockCount} * shape.blockStride;
        copies_.reset(new (std::nothrow) BlockPool);
        const Status made = copies_ != nullptr ? copies_->Create(shape) : Status{ENOMEM, "out of memory"};
        if (made.Failed()) {
            copies_.reset();
            return made;
        }
    }
    const BlockPool& told = copies_ != nullptr ? *copies_ : pool;
    return SendMessage(socket, Compose(MessageType::POOL, shape.bytes, shape.blockCount, shape.blockStride),
                       {told.Memory().Get()});
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
    BlockPool* const from = role == Role::READER ? pool : copies_.get();
    if (from != nullptr) {
        queue.TakeBackAll(*from);
    }
}

void Reader::CutOff(BlockPool* pool, const char* cause)
{
    cutOffCause = cause;
    TakeBlocks(pool);
}

bool Reader::QueueCopy(const unsigned char* record, uint32_t length, const BellWord*& wake)
{
    if (cutOffCause != nullptr) {
        return true;
    }
    if (copies_ != nullptr && copies_->Exhausted() && !queue.TakeBackConsumed(*copies_)) {
        return false;
    }
    if (copies_ == nullptr || copies_->Exhausted()) {
        queue.CountLost();
        return true;
    }
    const uint32_t block = copies_->Allocate(length, 0);
    copies_->Write(block, record, length, 0);
    wake = queue.Append(block, *copies_).wake;
    return true;
}

}  // namespace host_platform::iam

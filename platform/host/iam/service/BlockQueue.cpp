#include "platform/host/iam/service/BlockQueue.h"

#include <utility>

#include "platform/host/iam/wire/SharedMemory.h"

namespace host_platform::iam {

Status BlockQueue::Create(uint32_t entries, Memories& memories)
{
    Mapping own;
    Mapping readers;
    const Status made =
        CreateSharedMemory("iam-ring", RingBytes(entries), Writer::SERVICE, memories.service, own).Then([&] {
            return CreateSharedMemory("iam-reader", READER_WORDS_BYTES, Writer::READER, memories.reader, readers);
        });
    if (!made.Failed()) {
        ring_ = RingWriter(std::move(own), std::move(readers), entries);
    }
    return made;
}

BlockQueue::Appended BlockQueue::Append(uint32_t block, BlockPool& pool)
{
    const uint32_t length = pool.Queue(block);
    return {length, ring_.Append(block, length) ? ring_.Word() : nullptr};
}

bool BlockQueue::TakeBackConsumed(BlockPool& pool)
{
    const uint32_t consumed = ring_.ClaimedConsumed();
    const bool sound = CountIsSound(consumed, takenBack_, Queued());
    if (sound) {
        TakeBackUpTo(consumed, pool);
    }
    return sound;
}

void BlockQueue::TakeBackAll(BlockPool& pool)
{
    TakeBackUpTo(ring_.Appended(), pool);
}

void BlockQueue::TakeBackUpTo(uint32_t count, BlockPool& pool)
{
    for (; takenBack_ != count; ++takenBack_) {
        pool.TakeBack(ring_.BlockAt(takenBack_));
    }
}

}  // namespace host_platform::iam

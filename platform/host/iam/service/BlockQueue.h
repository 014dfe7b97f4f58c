// What waits for one reader: the writing end of its ring, and the blocks that are in it.
//
// Not safe for use by several threads at once: the service's lock guards it once its reader can be published to.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_BLOCK_QUEUE_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_BLOCK_QUEUE_H

#include <cstdint>

#include "platform/host/common/Status.h"
#include "platform/host/iam/service/BlockPool.h"
#include "platform/host/iam/wire/Ring.h"

namespace host_platform::iam {

class BlockQueue {
public:
    // What the reader maps of the ring. Once it is sent, nobody needs the descriptors any more.
    struct Memories {
        UniqueFd service;
        UniqueFd reader;
    };
    // Makes a ring of this many entries.
    Status Create(uint32_t entries, Memories& memories);

    struct Appended {
        uint32_t length;       // of the block's record
        const BellWord* wake;  // where the reader sleeps and must be woken; null if it does not
    };
    // Queues an allocated block.
    Appended Append(uint32_t block, BlockPool& pool);

    // Returns what the reader has consumed to the pool. False when the count that it claims makes no sense.
    [[nodiscard]] bool TakeBackConsumed(BlockPool& pool);

    // From here on the reader can tell that it delivers no block any more.
    void MarkRevoked()
    {
        ring_.Revoke();
    }
    // Returns every block to the pool, read or not. Only once marked.
    void TakeBackAll(BlockPool& pool);

    // An observer has missed a record.
    void CountLost()
    {
        ring_.CountLost();
    }

    uint32_t Queued() const
    {
        return ring_.Appended() - takenBack_;
    }
    uint32_t ClaimedConsumed() const
    {
        return ring_.ClaimedConsumed();
    }

private:
    void TakeBackUpTo(uint32_t count, BlockPool& pool);

    RingWriter ring_;
    uint32_t takenBack_ = 0;  // of all entries ever appended
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_BLOCK_QUEUE_H

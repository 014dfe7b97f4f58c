// What the service keeps for one connected reader: its ring, its bell, and which blocks are in its queue.
//
// Not safe for use by several threads at once: the service's lock guards it once it is attached.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_BLOCK_QUEUE_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_BLOCK_QUEUE_H

#include <cstdint>

#include "platform/host/common/Status.h"
#include "platform/host/iam/Doorbell.h"
#include "platform/host/iam/Ring.h"
#include "platform/host/iam/service/BlockPool.h"

namespace host_platform::iam {

class BlockQueue {
public:
    // `socket` belongs to the connection, which outlives the time that this queue is attached to the service.
    explicit BlockQueue(int socket) : socket_(socket)
    {
    }

    // Makes ring and bell and sends them to the reader.
    Status Offer();

    // Tells the reader of the pool, before anything from it is queued.
    Status SendPool(const BlockPool& pool) const;

    // Queues an allocated block and returns the length of its record. The reader is not cut off.
    uint32_t Append(uint32_t block, BlockPool& pool);

    // Returns what the reader has consumed to the pool. A reader that claims more than it was given is cut off.
    void TakeBackConsumed(BlockPool& pool);

    // Hangs up and returns all of its blocks to the pool, read or not. The reader can tell and delivers none of them.
    void CutOff(BlockPool* pool, const char* cause);

    uint32_t Queued() const
    {
        return blocks_.count;
    }
    // Why the reader was cut off, or null.
    const char* CutOffCause() const
    {
        return cutOffCause_;
    }

private:
    int socket_;
    RingWriter ring_;
    Doorbell bell_;
    BlockFifo blocks_;
    uint64_t takenBack_ = 0;  // of all entries ever appended
    const char* cutOffCause_ = nullptr;
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_BLOCK_QUEUE_H

// One reader or observer of the service, from its acceptance to its hang-up.
//
// The service owns it. The service thread alone makes it, follows its socket and destroys it; what a publish touches is
// under the service's lock, as marked.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_READER_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_READER_H

#include <atomic>
#include <cstdint>
#include <memory>

#include "iam.h"
#include "platform/host/common/Descriptor.h"
#include "platform/host/common/Status.h"
#include "platform/host/iam/RuntimeDirectory.h"
#include "platform/host/iam/service/BlockPool.h"
#include "platform/host/iam/service/BlockQueue.h"
#include "platform/host/iam/wire/Messages.h"

namespace host_platform::iam {

struct Reader {
    Reader(UniqueFd connection, int process);

    // --- The service thread's.

    // What notifications see of it.
    void Name(const char* resource, uint64_t handle);
    uint64_t Handle() const
    {
        return file.dataHandle;
    }
    // Makes its ring and sends it.
    Status Offer();

    enum class Stage { AWAIT_HELLO, AWAIT_READY, CONNECTED };

    const UniqueFd socket;  // the one descriptor that is kept for a reader
    const int pid;
    const Clock::time_point accepted = Clock::now();
    Stage stage = Stage::AWAIT_HELLO;
    Role role = Role::READER;  // as it has said in HELLO
    char label[sizeof(Path) + 32] = {};
    IAMRTFSMgrFile file{};

    // --- Under the service's lock.

    // Tells it of the pool, or makes a pool of its own for an observer and tells it of that.
    Status Introduce(const BlockPool& pool);
    // From here on it has to show that it still reads.
    void BeginToSupersede(Clock::time_point now);
    // Whether its count has not moved for so long that its blocks may be taken from it.
    bool HasStalled(Clock::time_point now);
    // Takes its blocks from it, if there is a pool, and lets it know.
    void TakeBlocks(BlockPool* pool);
    void CutOff(BlockPool* pool, const char* cause);
    // Queues a copy of this record for an observer, or counts it as lost. False when its ring makes no sense.
    [[nodiscard]] bool QueueCopy(const unsigned char* record, uint32_t length, const BellWord*& wake);

    BlockQueue queue;                               // of blocks of the service's pool, or of an observer's own
    bool attached = false;                          // it can be published to
    bool announced = false;                         // its open notification has returned
    std::atomic<const char*> cutOffCause{nullptr};  // once it was cut off; read without the lock, too

private:
    std::unique_ptr<BlockPool> copies_;  // an observer's own pool, once the service has one
    uint32_t consumedWhenSeen_ = 0;
    Clock::time_point movedAt_{};
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_READER_H

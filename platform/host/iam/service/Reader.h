// One reader of the service, from its acceptance to its hang-up.
//
// The service owns it. The service thread alone makes it, follows its socket and destroys it; what a publish touches is
// under the service's lock, as marked.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_READER_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_READER_H

#include <chrono>
#include <cstdint>

#include "iam.h"
#include "platform/host/common/Descriptor.h"
#include "platform/host/common/Status.h"
#include "platform/host/iam/RuntimeDirectory.h"
#include "platform/host/iam/service/BlockPool.h"
#include "platform/host/iam/service/BlockQueue.h"

namespace host_platform::iam {

using Clock = std::chrono::steady_clock;

struct Reader {
    enum class Stage { AWAIT_HELLO, AWAIT_READY, CONNECTED };

    Reader(UniqueFd connection, int process);

    // What notifications see of it.
    void Name(const char* resource, uint64_t handle);
    uint64_t Handle() const
    {
        return file.dataHandle;
    }

    // Makes its ring and sends it.
    Status Offer();
    // Tells it of the pool, before anything from it is queued.
    Status SendPool(const BlockPool& pool) const;

    // --- Under the service's lock from the time that it is attached.

    // From here on it has to show that it still reads.
    void BeginToSupersede(Clock::time_point now);
    // Whether its count has not moved for so long that its blocks may be taken from it.
    bool HasStalled(Clock::time_point now);
    // Takes its blocks from it, if there is a pool, and lets it know.
    void TakeBlocks(BlockPool* pool);
    // The same; the service thread, which must hear of it, hangs up.
    void CutOff(BlockPool* pool, const char* cause);

    // --- The service thread's.

    const UniqueFd socket;  // the one descriptor that is kept for a reader
    const int pid;
    const Clock::time_point accepted = Clock::now();
    Stage stage = Stage::AWAIT_HELLO;
    char label[sizeof(Path) + 32] = {};
    IAMRTFSMgrFile file{};

    // --- Under the service's lock from the time that it is attached.

    BlockQueue queue;
    bool attached = false;              // it can be published to
    bool announced = false;             // its open notification has returned
    const char* cutOffCause = nullptr;  // why it was cut off

private:
    uint32_t consumedWhenSeen_ = 0;
    Clock::time_point movedAt_{};
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_READER_H

// The one resource that this process serves: its life, its pool, its readers.
//
// Two kinds of threads come here: the publisher's, through the C functions, and the one service thread, which brings
// readers and takes them away. Two locks make them take turns. `mutex_` guards what a publish touches; it is a leaf and
// held for a few dozen instructions. `lifeMutex_`, taken before it, guards the rest: the service's life, and the
// introduction of readers and pool to each other, so that each reader is told of the pool once, before anything from it
// is queued, and by a socket that stays open meanwhile. Neither is held while a notification runs.
//
// The object is never destroyed, so that a handle of any age leads to something that can judge it. Handles carry a
// number that is never used twice.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_SERVICE_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_SERVICE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "iam.h"
#include "platform/host/common/Mutex.h"
#include "platform/host/common/Status.h"
#include "platform/host/iam/Endpoint.h"
#include "platform/host/iam/RuntimeDirectory.h"
#include "platform/host/iam/service/BlockPool.h"
#include "platform/host/iam/service/Reader.h"
#include "platform/host/iam/service/ServiceThread.h"

namespace host_platform::iam {

class Service {
public:
    static Service& Instance();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // --- Life: IDLE -> STARTING -> SERVING -> ENDING -> IDLE.

    // A second call for the name that is served replaces the table of notifications.
    Status Serve(const char* name, const IAMFileOperations& operations) HOST_EXCLUDES(lifeMutex_, mutex_);

    // Ends the service that has this pool: delivers the close notifications, then destroys the pool and gives the name
    // free. Called from inside a notification, it returns at once, and no other notification follows. -EBADF if there
    // is no such pool any more.
    int End(uint64_t poolGeneration) HOST_EXCLUDES(lifeMutex_, mutex_);

    // --- The publisher's calls. Results are 0 or a negative errno value.

    Status RegisterPool(const char* name, const PoolShape& shape, uint64_t& poolGeneration)
        HOST_EXCLUDES(lifeMutex_, mutex_);
    int Allocate(uint64_t poolGeneration, uint32_t size, uint64_t& block) HOST_EXCLUDES(mutex_);
    int Write(uint64_t block, const void* data, uint32_t size, uint32_t offset) HOST_EXCLUDES(mutex_);
    int Enqueue(uint64_t reader, uint64_t poolGeneration, uint64_t block) HOST_EXCLUDES(mutex_);
    int Free(uint64_t poolGeneration, uint64_t block) HOST_EXCLUDES(mutex_);

    // How many readers have been let know to the publisher; -1 when this name is not served.
    int ReaderCount(const char* name) HOST_EXCLUDES(lifeMutex_, mutex_);

private:
    friend class ServiceThread;

    static constexpr size_t READER_LIMIT = 1024;

    enum class Life { IDLE, STARTING, SERVING, ENDING };

    Service() = default;

    Status Start(const char* name) HOST_EXCLUDES(lifeMutex_, mutex_);
    void BeginEnd(bool quiet) HOST_REQUIRES(lifeMutex_) HOST_EXCLUDES(mutex_);
    void WaitForEnd() HOST_REQUIRES(lifeMutex_);
    void EndAtExit() HOST_EXCLUDES(lifeMutex_, mutex_);

    Status MayRegisterPool(const char* name) HOST_EXCLUDES(lifeMutex_, mutex_);
    Status MayRegisterPoolNow(const char* name) const HOST_REQUIRES(lifeMutex_) HOST_EXCLUDES(mutex_);
    bool IsAllocated(uint64_t poolGeneration, uint64_t block) const HOST_REQUIRES(mutex_);
    Reader* FindAttached(uint64_t handle) const HOST_REQUIRES(mutex_);
    void SetCurrent(uint64_t handle) HOST_REQUIRES(mutex_);
    void Replenish() HOST_REQUIRES(mutex_);
    void TakeBackFromOthers(const Reader* current) HOST_REQUIRES(mutex_);
    void TakeBack(Reader& reader) HOST_REQUIRES(mutex_);
    void CutOff(Reader& reader, const char* cause) HOST_REQUIRES(mutex_);

    // --- The service thread's side. What it gets a pointer to stays until it removes it.

    const char* Name() const
    {
        return name_.text;
    }
    bool IsEnding() HOST_EXCLUDES(lifeMutex_);
    Endpoint* CurrentEndpoint() HOST_EXCLUDES(lifeMutex_);  // null while there is none
    // The table now in force; empty once notifications have ended.
    IAMFileOperations Notifications() HOST_EXCLUDES(lifeMutex_);
    // Takes a new reader in and gives it its handle. EMFILE when all or one process have as many as they may.
    Status Add(std::unique_ptr<Reader> reader) HOST_EXCLUDES(mutex_);
    size_t ReadersEnd() const HOST_EXCLUDES(mutex_);
    enum class Which { ALL, ATTACHED, CUT_OFF };
    Reader* ReaderAt(size_t index, Which which) const HOST_EXCLUDES(mutex_);  // null where there is no such one
    // Lets the reader be published to and sends it the pool, if there is one.
    Status Attach(Reader& reader) HOST_EXCLUDES(lifeMutex_, mutex_);
    // It is the newest one: it counts as the current one until the publisher enqueues to another.
    void MakeCurrent(Reader& reader) HOST_EXCLUDES(mutex_);
    // Takes its blocks back and hands it over to be hung up.
    std::unique_ptr<Reader> Remove(Reader& reader) HOST_EXCLUDES(lifeMutex_, mutex_);
    // Once every reader is gone: releases the pool and the name.
    void FinishEnd() HOST_EXCLUDES(lifeMutex_, mutex_);

    ServiceThread thread_{*this};

    Mutex lifeMutex_;
    CondVar ended_;
    Life life_ HOST_GUARDED_BY(lifeMutex_) = Life::IDLE;
    uint64_t ends_ HOST_GUARDED_BY(lifeMutex_) = 0;
    bool quiet_ HOST_GUARDED_BY(lifeMutex_) = false;    // no notification in this life any more
    bool exiting_ HOST_GUARDED_BY(lifeMutex_) = false;  // nor in any other
    IAMFileOperations operations_ HOST_GUARDED_BY(lifeMutex_){};
    std::unique_ptr<Endpoint> endpoint_ HOST_GUARDED_BY(lifeMutex_);
    Path name_{};  // set by whoever starts it, when nobody else looks at it

    mutable BriefMutex mutex_;
    std::unique_ptr<BlockPool> pool_ HOST_GUARDED_BY(mutex_);  // set and reset under both locks
    uint64_t poolGeneration_ HOST_GUARDED_BY(mutex_) = 0;      // of the pool that is there or was last
    uint64_t servingGeneration_ HOST_GUARDED_BY(mutex_) = 0;   // the same while its service serves, else 0
    uint64_t lastUse_ HOST_GUARDED_BY(mutex_) = 0;             // of readers and blocks
    uint64_t bytesQueued_ HOST_GUARDED_BY(mutex_) = 0;         // since consumed blocks were last taken back
    bool someoneCutOff_ HOST_GUARDED_BY(mutex_) = false;       // and the service thread not told yet

    std::array<std::unique_ptr<Reader>, READER_LIMIT> readers_ HOST_GUARDED_BY(mutex_);
    size_t readersEnd_ HOST_GUARDED_BY(mutex_) = 0;  // no reader stands at this index or above
    uint64_t current_ HOST_GUARDED_BY(mutex_) = 0;   // the handle of the current reader; it may be gone
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_SERVICE_H

// The one resource that this process serves: its life, its pool, its readers.
//
// Two kinds of threads come here: the publisher's, through the C functions, and the one service thread, which brings
// readers and takes them away. One lock makes them take turns. It is a leaf, held for a few dozen instructions on the
// path of a record and never while a notification runs. Rare things take longer under it, because they must be whole: a
// new reader is compared with all others; a reader is sent the pool, once and before anything from it is queued; an
// observer's own pool is made; the service thread is told to end somebody or all.
//
// The object is never destroyed, so that a handle of any age leads to something that can judge it.
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
#include "platform/host/iam/service/BlockPool.h"
#include "platform/host/iam/service/Reader.h"
#include "platform/host/iam/service/ServiceThread.h"
#include "platform/host/iam/wire/Bell.h"

namespace host_platform::iam {

class Service {
public:
    static Service& Instance();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // A second call for the name that is served replaces the table of notifications.
    Status Serve(const char* name, const IAMFileOperations& operations) HOST_EXCLUDES(mutex_);

    // Ends the service that has this pool: delivers the close notifications, then destroys the pool and gives the name
    // free. Called from inside a notification, it returns at once, and no other notification follows. -EBADF if there
    // is no such pool any more.
    int End(uint64_t poolGeneration) HOST_EXCLUDES(mutex_);

    // --- The publisher's calls. Results are 0 or a negative errno value.

    Status RegisterPool(const char* name, const PoolShape& shape, uint64_t& poolGeneration) HOST_EXCLUDES(mutex_);
    int Allocate(uint64_t poolGeneration, uint32_t size, uint64_t& block) HOST_EXCLUDES(mutex_);
    int Write(uint64_t block, const void* data, uint32_t size, uint32_t offset) HOST_EXCLUDES(mutex_);
    int Enqueue(uint64_t reader, uint64_t poolGeneration, uint64_t block) HOST_EXCLUDES(mutex_);
    int Free(uint64_t poolGeneration, uint64_t block) HOST_EXCLUDES(mutex_);

    // How many readers have been let know to the publisher; -1 when this name is not served.
    int ReaderCount(const char* name) const HOST_EXCLUDES(mutex_);

private:
    friend class ServiceThread;

    static constexpr size_t OBSERVER_LIMIT = 16;

    enum class Life { IDLE, STARTING, SERVING, ENDING };
    struct Sleepers;

    Service() = default;

    void BeginEnd(bool quiet) HOST_REQUIRES(mutex_);
    void WaitForEnd(uint32_t endsBefore) const;
    void EndAtExit() HOST_EXCLUDES(mutex_);

    uint64_t NextUse() HOST_REQUIRES(mutex_);
    bool Serves(const char* name) const HOST_REQUIRES(mutex_);
    bool IsAllocated(uint64_t poolGeneration, uint64_t block) const HOST_REQUIRES(mutex_);
    Reader* FindAttached(uint64_t handle) const HOST_REQUIRES(mutex_);
    void SetCurrent(uint64_t handle) HOST_REQUIRES(mutex_);
    void Replenish() HOST_REQUIRES(mutex_);
    void TakeBackFromOthers(const Reader* current) HOST_REQUIRES(mutex_);
    void CutOff(Reader& reader, const char* cause) HOST_REQUIRES(mutex_);
    void CopyToObservers(uint32_t block, uint32_t length, Sleepers& sleepers) HOST_REQUIRES(mutex_);

    // --- The service thread's. A pointer to a reader is good until the thread itself removes that reader.

    const char* Name() const
    {
        return name_.text;
    }
    bool IsEnding() const HOST_EXCLUDES(mutex_);
    const Endpoint* CurrentEndpoint() const HOST_EXCLUDES(mutex_);  // null while there is none
    // The table now in force; empty once notifications have ended.
    IAMFileOperations Notifications() const HOST_EXCLUDES(mutex_);
    // Takes a new reader in and gives it its handle. EMFILE when all or one process have as many as they may.
    Status Add(std::unique_ptr<Reader> reader) HOST_EXCLUDES(mutex_);
    Reader* ReaderAt(size_t index) const HOST_EXCLUDES(mutex_);  // null where there is none
    // Lets the reader be published to and sends it the pool, if there is one; an observer gets one of its own.
    Status Attach(Reader& reader) HOST_EXCLUDES(mutex_);
    // It is the newest one: it counts as the current one until the publisher enqueues to another.
    void MakeCurrent(Reader& reader) HOST_EXCLUDES(mutex_);
    // Takes its blocks back and hands it over to be hung up.
    std::unique_ptr<Reader> Remove(Reader& reader) HOST_EXCLUDES(mutex_);
    // Writes who has this resource open; returns how many.
    uint32_t List(ListedReader* readers) const HOST_EXCLUDES(mutex_);
    // Once every reader is gone: releases the pool and the name.
    void FinishEnd() HOST_EXCLUDES(mutex_);

    ServiceThread thread_{*this};

    mutable BriefMutex mutex_;
    Life life_ HOST_GUARDED_BY(mutex_) = Life::IDLE;
    bool quiet_ HOST_GUARDED_BY(mutex_) = false;    // no notification in this life any more
    bool exiting_ HOST_GUARDED_BY(mutex_) = false;  // nor in any other
    IAMFileOperations operations_ HOST_GUARDED_BY(mutex_){};
    std::unique_ptr<Endpoint> endpoint_ HOST_GUARDED_BY(mutex_);
    Path name_{};       // written while it starts, when nobody else looks at it
    BellWord ends_{0};  // how many lives have ended; who waits for an end sleeps on it

    std::unique_ptr<BlockPool> pool_ HOST_GUARDED_BY(mutex_);
    uint64_t poolGeneration_ HOST_GUARDED_BY(mutex_) = 0;  // of the last pool
    uint64_t lastUse_ HOST_GUARDED_BY(mutex_) = 0;         // of readers and blocks
    uint64_t bytesQueued_ HOST_GUARDED_BY(mutex_) = 0;     // since consumed blocks were last taken back

    std::array<std::unique_ptr<Reader>, READER_LIMIT> readers_ HOST_GUARDED_BY(mutex_);
    size_t readersEnd_ HOST_GUARDED_BY(mutex_) = 0;  // no reader stands at this index or above
    uint64_t current_ HOST_GUARDED_BY(mutex_) = 0;   // the handle of the current reader; it may be gone
    std::array<Reader*, OBSERVER_LIMIT> observers_ HOST_GUARDED_BY(mutex_){};
    size_t observerCount_ HOST_GUARDED_BY(mutex_) = 0;
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_SERVICE_H

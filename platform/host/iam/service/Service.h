// One resource that this process serves: its notification table, its pool, its readers' queues.
//
// Two kinds of threads come here: the publisher's, through the C functions, and the one service thread, which attaches
// and detaches readers. One lock makes them take turns; it is a leaf, is held for a few lines that never block, and
// never while a notification runs.
//
// The object is made for a name once and lives as long as the process, so that a handle of any age leads to something
// that can judge it. Handles carry a number that is never used twice.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_SERVICE_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_SERVICE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "iam.h"
#include "platform/host/common/Mutex.h"
#include "platform/host/common/Status.h"
#include "platform/host/iam/Endpoint.h"
#include "platform/host/iam/service/BlockPool.h"
#include "platform/host/iam/service/BlockQueue.h"

namespace host_platform::iam {

constexpr size_t SERVICE_LIMIT = 64;
constexpr size_t READER_LIMIT = 1024;  // of one service

// A block of the pool in the hands of the publisher. Sequences count the uses of all blocks, modulo 2^40.
struct BlockKey {
    uint32_t block;
    uint64_t sequence;
};
// A reader: its place and the how manieth reader of that place it is, from 1.
struct ReaderKey {
    uint32_t index;
    uint64_t generation;
};

class Service {
public:
    explicit Service(std::string name) : name_(std::move(name))
    {
    }

    const std::string& Name() const
    {
        return name_;
    }

    // --- Life. IDLE -> STARTING -> SERVING -> ENDING -> IDLE.

    enum class Begin { STARTED, REPLACED, BUSY };

    // STARTED: the caller makes the endpoint and calls FinishStart. REPLACED: it serves already, under the new table.
    Begin BeginServing(const IAMFileOperations& operations) HOST_EXCLUDES(mutex_);
    // Null: the start has failed.
    void FinishStart(std::unique_ptr<Endpoint> endpoint) HOST_EXCLUDES(mutex_);

    // Ends a service that serves; false if it does not. `quiet`: no further notification is delivered.
    bool BeginEnd(bool quiet) HOST_EXCLUDES(mutex_);
    // The same, if this is its pool.
    bool BeginEndOfPool(uint64_t poolGeneration, bool quiet) HOST_EXCLUDES(mutex_);
    // The same, if it has no pool.
    bool BeginEndWithoutPool(bool quiet) HOST_EXCLUDES(mutex_);
    // The service thread, once every reader is detached: releases the pool and the name.
    void FinishEnd() HOST_EXCLUDES(mutex_, endMutex_);
    void WaitForEnd() HOST_EXCLUDES(mutex_, endMutex_);

    // --- The publisher's side. Results are 0 or a negative errno value.

    Status RegisterPool(const PoolShape& shape, uint64_t& poolGeneration) HOST_EXCLUDES(mutex_);
    int Allocate(uint64_t poolGeneration, uint32_t size, BlockKey& key) HOST_EXCLUDES(mutex_);
    int Write(const BlockKey& key, const void* data, uint32_t size, uint32_t offset) HOST_EXCLUDES(mutex_);
    int Enqueue(const ReaderKey& reader, uint64_t poolGeneration, const BlockKey& key) HOST_EXCLUDES(mutex_);
    int Free(uint64_t poolGeneration, const BlockKey& key) HOST_EXCLUDES(mutex_);

    // --- The service thread's side.

    // How many readers have been let know to the publisher; -1 when this does not serve.
    int ReaderCount() const HOST_EXCLUDES(mutex_);

    int Listener() const HOST_EXCLUDES(mutex_);  // -1 while there is none
    // The table now in force; empty once notifications have ended.
    IAMFileOperations Notifications() const HOST_EXCLUDES(mutex_);

    // Takes the queue and, if there is a pool, sends it. From here on the reader can be published to.
    Status Attach(std::unique_ptr<BlockQueue> queue, ReaderKey& key) HOST_EXCLUDES(mutex_);
    // The reader is the newest one: it counts as the current one until the publisher enqueues to another.
    void MakeCurrent(const ReaderKey& key) HOST_EXCLUDES(mutex_);
    // Takes its blocks back and forgets it. Returns why it had been cut off, or null.
    const char* Detach(const ReaderKey& key) HOST_EXCLUDES(mutex_);

private:
    enum class Life { IDLE, STARTING, SERVING, ENDING };

    // A place for a reader; its generation grows with every reader that takes it.
    struct Place {
        std::unique_ptr<BlockQueue> queue;
        uint64_t generation = 0;
        bool announced = false;  // its open notification has returned
    };

    bool IsEnding() const HOST_EXCLUDES(mutex_);
    bool BeginEndLocked(bool quiet) HOST_REQUIRES(mutex_);
    bool HasPool(uint64_t generation) const HOST_REQUIRES(mutex_);
    BlockQueue* Find(const ReaderKey& key) const HOST_REQUIRES(mutex_);
    void Replenish() HOST_REQUIRES(mutex_);

    const std::string name_;

    mutable BriefMutex mutex_;
    Mutex endMutex_;  // taken before mutex_, by whoever waits for the end
    CondVar ended_;
    Life life_ HOST_GUARDED_BY(mutex_) = Life::IDLE;
    bool quiet_ HOST_GUARDED_BY(mutex_) = false;
    IAMFileOperations operations_ HOST_GUARDED_BY(mutex_){};
    std::unique_ptr<Endpoint> endpoint_ HOST_GUARDED_BY(mutex_);

    std::unique_ptr<BlockPool> pool_ HOST_GUARDED_BY(mutex_);
    bool poolBeingMade_ HOST_GUARDED_BY(mutex_) = false;
    uint64_t poolGeneration_ HOST_GUARDED_BY(mutex_) = 0;
    uint64_t lastSequence_ HOST_GUARDED_BY(mutex_) = 0;
    uint64_t bytesQueued_ HOST_GUARDED_BY(mutex_) = 0;  // since consumed blocks were last taken back

    std::vector<Place> readers_ HOST_GUARDED_BY(mutex_);
    ReaderKey current_ HOST_GUARDED_BY(mutex_){};  // generation 0: nobody
};

// All services of this process, by name and by number. Made before any code runs and never destroyed.
class ServiceDirectory {
public:
    static ServiceDirectory& Instance();

    constexpr ServiceDirectory() = default;

    // Null when there is no room for another name. Throws std::bad_alloc.
    Service* FindOrAdd(const std::string& name, size_t& number);
    Service* Find(std::string_view name, size_t& number) const;
    // Null when no service has this number. Wait-free: every published record passes here.
    Service* At(size_t number) const
    {
        // Acquire: the object behind the pointer is complete.
        return number < SERVICE_LIMIT ? services_[number].load(std::memory_order_acquire) : nullptr;
    }

private:
    Mutex additions_;
    std::atomic<Service*> services_[SERVICE_LIMIT] = {};
};

extern ServiceDirectory serviceDirectory;

inline ServiceDirectory& ServiceDirectory::Instance()
{
    return serviceDirectory;
}

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_SERVICE_H

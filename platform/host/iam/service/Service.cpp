#include "platform/host/iam/service/Service.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <type_traits>
#include <utility>

namespace host_platform::iam {
namespace {

// Consumed blocks are taken back once this many bytes have been queued since the last time. Looking at the reader's
// count costs a cache miss, so small records share one look; large ones fill the caches soon, so their blocks come back
// after a few and are used again while they are warm.
constexpr uint64_t TAKE_BACK_BYTES = uint64_t{16} * 1024;

constexpr uint64_t SEQUENCE_LIMIT = uint64_t{1} << 40;

}  // namespace

// ---------------------------------------------------------------------------------------------------------------------
// Life

Service::Begin Service::BeginServing(const IAMFileOperations& operations)
{
    const MutexLock lock(mutex_);
    if (life_ == Life::STARTING || life_ == Life::ENDING) {
        return Begin::BUSY;
    }
    operations_ = operations;
    if (life_ == Life::SERVING) {
        return Begin::REPLACED;
    }
    life_ = Life::STARTING;
    return Begin::STARTED;
}

void Service::FinishStart(std::unique_ptr<Endpoint> endpoint)
{
    const MutexLock lock(mutex_);
    life_ = endpoint != nullptr ? Life::SERVING : Life::IDLE;
    quiet_ = false;
    endpoint_ = std::move(endpoint);
}

bool Service::BeginEnd(bool quiet)
{
    const MutexLock lock(mutex_);
    return BeginEndLocked(quiet);
}

bool Service::BeginEndOfPool(uint64_t poolGeneration, bool quiet)
{
    const MutexLock lock(mutex_);
    return HasPool(poolGeneration) && BeginEndLocked(quiet);
}

bool Service::BeginEndWithoutPool(bool quiet)
{
    const MutexLock lock(mutex_);
    return pool_ == nullptr && BeginEndLocked(quiet);
}

bool Service::BeginEndLocked(bool quiet)
{
    if (life_ != Life::SERVING) {
        return false;
    }
    life_ = Life::ENDING;
    quiet_ = quiet;
    return true;
}

void Service::FinishEnd()
{
    std::unique_ptr<Endpoint> endpoint;
    std::unique_ptr<BlockPool> pool;
    {
        const MutexLock lock(mutex_);
        endpoint = std::move(endpoint_);
        pool = std::move(pool_);
    }
    endpoint.reset();  // before anyone is told that the name is free
    pool.reset();
    {
        const MutexLock lock(mutex_);
        life_ = Life::IDLE;
    }
    const MutexLock lock(endMutex_);  // whoever waits has looked before this, and is waiting by now, or looks after it
    ended_.NotifyAll();
}

void Service::WaitForEnd()
{
    const MutexLock lock(endMutex_);
    while (IsEnding()) {
        ended_.Wait(endMutex_);
    }
}

bool Service::IsEnding() const
{
    const MutexLock lock(mutex_);
    return life_ == Life::ENDING;
}

// ---------------------------------------------------------------------------------------------------------------------
// The publisher's side

Status Service::RegisterPool(const PoolShape& shape, uint64_t& poolGeneration)
{
    {
        const MutexLock lock(mutex_);
        if (life_ != Life::SERVING) {
            return {ENOENT, "its service is not registered"};
        }
        if (pool_ != nullptr || poolBeingMade_) {
            return {EEXIST, "it has a pool already"};
        }
        poolBeingMade_ = true;
    }
    Status status;
    std::unique_ptr<BlockPool> pool(new (std::nothrow) BlockPool);
    try {
        status = pool != nullptr ? pool->Create(shape) : Status{ENOMEM, "out of memory"};
    } catch (const std::bad_alloc&) {
        status = {ENOMEM, "out of memory"};
    }
    const MutexLock lock(mutex_);
    poolBeingMade_ = false;
    if (status.Failed()) {
        return status;
    }
    if (life_ != Life::SERVING) {
        return {ESHUTDOWN, "its service is being ended"};
    }
    pool_ = std::move(pool);
    poolGeneration = ++poolGeneration_;
    bytesQueued_ = 0;
    for (const Place& place : readers_) {
        if (place.queue != nullptr && place.queue->SendPool(*pool_).Failed()) {
            place.queue->CutOff(pool_.get(), "it does not take its messages");
        }
    }
    return {};
}

int Service::Allocate(uint64_t poolGeneration, uint32_t size, BlockKey& key)
{
    const MutexLock lock(mutex_);
    if (!HasPool(poolGeneration)) {
        return -EBADF;
    }
    if (size > pool_->Shape().blockStride) {
        return -EMSGSIZE;
    }
    if (bytesQueued_ >= TAKE_BACK_BYTES || pool_->Exhausted()) {
        Replenish();
    }
    if (pool_->Exhausted()) {
        return -ENOBUFS;
    }
    lastSequence_ = (lastSequence_ + 1) % SEQUENCE_LIMIT;
    key.sequence = lastSequence_;
    key.block = pool_->Allocate(size, lastSequence_);
    return 0;
}

int Service::Write(const BlockKey& key, const void* data, uint32_t size, uint32_t offset)
{
    const MutexLock lock(mutex_);
    if (pool_ == nullptr || !pool_->IsAllocated(key.block, key.sequence)) {
        return -EBADF;
    }
    return pool_->Write(key.block, data, size, offset) ? 0 : -EMSGSIZE;
}

int Service::Enqueue(const ReaderKey& reader, uint64_t poolGeneration, const BlockKey& key)
{
    const MutexLock lock(mutex_);
    if (!HasPool(poolGeneration) || !pool_->IsAllocated(key.block, key.sequence)) {
        return -EBADF;
    }
    BlockQueue* const queue = Find(reader);
    if (queue == nullptr) {
        return -ENOTCONN;
    }
    if (queue->CutOffCause() != nullptr) {
        return -EPIPE;
    }
    current_ = reader;
    bytesQueued_ += queue->Append(key.block, *pool_);
    return 0;
}

int Service::Free(uint64_t poolGeneration, const BlockKey& key)
{
    const MutexLock lock(mutex_);
    if (!HasPool(poolGeneration) || !pool_->IsAllocated(key.block, key.sequence)) {
        return -EBADF;
    }
    pool_->Free(key.block);
    return 0;
}

void Service::Replenish()
{
    bytesQueued_ = 0;
    BlockQueue* const current = Find(current_);
    if (current != nullptr) {
        current->TakeBackConsumed(*pool_);
    }
    // Other readers matter only when nothing is left, so that the cost of a record does not grow with their number.
    const uint32_t queuedByCurrent = current != nullptr ? current->Queued() : 0;
    if (!pool_->Exhausted() || pool_->Queued() == queuedByCurrent) {
        return;
    }
    for (const Place& place : readers_) {
        if (place.queue != nullptr && place.queue.get() != current) {
            place.queue->TakeBackConsumed(*pool_);
        }
    }
    if (!pool_->Exhausted()) {
        return;
    }
    for (const Place& place : readers_) {
        if (place.queue != nullptr && place.queue.get() != current && place.queue->Queued() != 0) {
            place.queue->CutOff(pool_.get(), "it is not the current reader and held blocks of an empty pool");
        }
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// The service thread's side

int Service::ReaderCount() const
{
    const MutexLock lock(mutex_);
    if (life_ != Life::SERVING) {
        return -1;
    }
    const auto announced = [](const Place& place) { return place.announced; };
    return static_cast<int>(std::count_if(readers_.begin(), readers_.end(), announced));
}

int Service::Listener() const
{
    const MutexLock lock(mutex_);
    return endpoint_ != nullptr ? endpoint_->Listener() : -1;
}

IAMFileOperations Service::Notifications() const
{
    const MutexLock lock(mutex_);
    return quiet_ ? IAMFileOperations{} : operations_;
}

Status Service::Attach(std::unique_ptr<BlockQueue> queue, ReaderKey& key)
{
    const MutexLock lock(mutex_);
    if (life_ != Life::SERVING) {
        return {ESHUTDOWN, "the service is being ended"};
    }
    uint32_t index = 0;
    while (index < readers_.size() && readers_[index].queue != nullptr) {
        ++index;
    }
    if (index == readers_.size()) {
        if (index == READER_LIMIT) {
            return {EMFILE, "too many readers"};
        }
        readers_.emplace_back();
    }
    if (pool_ != nullptr) {
        const Status sent = queue->SendPool(*pool_);
        if (sent.Failed()) {
            return sent;
        }
    }
    readers_[index].queue = std::move(queue);
    key = {index, ++readers_[index].generation};
    return {};
}

void Service::MakeCurrent(const ReaderKey& key)
{
    const MutexLock lock(mutex_);
    current_ = key;
    readers_[key.index].announced = true;
}

const char* Service::Detach(const ReaderKey& key)
{
    std::unique_ptr<BlockQueue> queue;
    const MutexLock lock(mutex_);
    if (Find(key) == nullptr) {
        return nullptr;
    }
    queue = std::move(readers_[key.index].queue);
    readers_[key.index].announced = false;
    const char* const cause = queue->CutOffCause();
    if (life_ == Life::SERVING) {
        queue->CutOff(pool_.get(), "");
    }
    // Otherwise nothing is written to a block any more: the reader may deliver what it has.
    return cause;
}

bool Service::HasPool(uint64_t generation) const
{
    return life_ == Life::SERVING && pool_ != nullptr && generation == poolGeneration_;
}

BlockQueue* Service::Find(const ReaderKey& key) const
{
    if (key.index >= readers_.size() || readers_[key.index].generation != key.generation) {
        return nullptr;
    }
    return readers_[key.index].queue.get();
}

// ---------------------------------------------------------------------------------------------------------------------
// The directory

ServiceDirectory serviceDirectory;
static_assert(std::is_trivially_destructible_v<ServiceDirectory>, "it is used until the process is gone");

Service* ServiceDirectory::Find(std::string_view name, size_t& number) const
{
    for (number = 0; number < SERVICE_LIMIT; ++number) {
        Service* const service = At(number);
        if (service == nullptr || service->Name() == name) {
            return service;
        }
    }
    return nullptr;
}

Service* ServiceDirectory::FindOrAdd(const std::string& name, size_t& number)
{
    const MutexLock lock(additions_);
    Service* service = Find(name, number);
    if (service == nullptr && number < SERVICE_LIMIT) {
        service = new Service(name);
        services_[number].store(service, std::memory_order_release);  // complete before anyone finds it
    }
    return service;
}

}  // namespace host_platform::iam

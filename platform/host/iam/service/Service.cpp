#include "platform/host/iam/service/Service.h"

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "platform/host/iam/service/Handles.h"

namespace host_platform::iam {
namespace {

// Consumed blocks are taken back once this many bytes have been queued since the last time, because looking at the
// reader's count costs a cache miss, which many records share; and at the first record after one that has woken the
// reader, which had then consumed everything: a stream that is keeping up goes on in the few blocks that are warm.
constexpr uint64_t TAKE_BACK_BYTES = uint64_t{64} * 1024;

constexpr char RING_MAKES_NO_SENSE[] = "its ring makes no sense";

}  // namespace

Service& Service::Instance()
{
    alignas(Service) static unsigned char place[sizeof(Service)];
    static auto* const service = new (place) Service;
    return *service;
}

// ---------------------------------------------------------------------------------------------------------------------
// Life

Status Service::Serve(const char* name, const IAMFileOperations& operations)
{
    if (!IsResourceName(name)) {
        return {EINVAL, "a resource name has the form <text>:/res/..."};
    }
    if (thread_.IsInChild()) {
        return {ENOTSUP, "a child of fork must call exec first"};
    }
    std::unique_ptr<Endpoint> endpoint(new (std::nothrow) Endpoint);
    if (endpoint == nullptr) {
        return {ENOMEM, "out of memory"};
    }
    {
        const MutexLock lock(mutex_);
        if (Serves(name)) {
            operations_ = operations;
            return {};
        }
        if (life_ == Life::SERVING) {
            return {EEXIST, "this process serves another resource, and a process serves one"};
        }
        if (life_ != Life::IDLE) {
            return {EBUSY, "another thread is starting or ending its service"};
        }
        life_ = Life::STARTING;
        quiet_ = false;
        operations_ = operations;
        snprintf(name_.text, sizeof(name_.text), "%s", name);
    }
    const Status prepared = endpoint->Create(name).Then([&] { return thread_.Start(); }).Then([&] {
        // At every start: what was built since the last one, and is destroyed earlier, must not hear of a reader any
        // more.
        return std::atexit([] { Instance().EndAtExit(); }) == 0 ? Status{}
                                                                : Status{ENOMEM, "no exit handler can be registered"};
    });
    const MutexLock lock(mutex_);
    // A system call under the lock, so that the first reader finds all of it.
    const Status watched = prepared.Then([&] { return thread_.Watch(*endpoint); });
    if (!watched.Failed()) {
        endpoint_ = std::move(endpoint);
    }
    life_ = watched.Failed() ? Life::IDLE : Life::SERVING;
    return watched;
}

int Service::End(uint64_t poolGeneration)
{
    if (thread_.IsInChild()) {
        return -EBADF;
    }
    uint32_t endsBefore = 0;
    {
        const MutexLock lock(mutex_);
        if (life_ != Life::SERVING || pool_ == nullptr || poolGeneration != poolGeneration_) {
            return -EBADF;
        }
        endsBefore = ends_;
        BeginEnd(thread_.IsCurrentThread());
    }
    if (!thread_.IsCurrentThread()) {
        WaitForEnd(endsBefore);
    }
    return 0;
}

// From here on nothing is delivered any more, in this life or another. What the readers have not read stays readable;
// another thread that publishes still is refused.
void Service::EndAtExit()
{
    if (thread_.IsInChild()) {
        return;
    }
    std::unique_ptr<Endpoint> endpoint;
    uint32_t endsBefore = 0;
    {
        const MutexLock lock(mutex_);
        exiting_ = true;
        endsBefore = ends_;
        if (life_ == Life::SERVING) {
            BeginEnd(true);
        }
        if (life_ != Life::ENDING) {
            return;
        }
        if (thread_.IsCurrentThread()) {  // inside a notification: the thread will not come to it
            endpoint = std::move(endpoint_);
        }
    }
    if (!thread_.IsCurrentThread()) {
        WaitForEnd(endsBefore);
    }
}

void Service::BeginEnd(bool quiet)
{
    life_ = Life::ENDING;
    quiet_ = quiet;
    thread_.Wake();
}

void Service::WaitForEnd(uint32_t endsBefore) const
{
    while (ends_ == endsBefore && SleepWhile(ends_, endsBefore) == 0) {
    }
}

void Service::FinishEnd()
{
    std::unique_ptr<Endpoint> endpoint;
    std::unique_ptr<BlockPool> pool;
    {
        const MutexLock lock(mutex_);
        endpoint = std::move(endpoint_);
        pool = std::move(pool_);
        readersEnd_ = 0;
    }
    endpoint.reset();  // before anyone is told that the name is free
    pool.reset();
    const MutexLock lock(mutex_);
    life_ = Life::IDLE;
    ++ends_;
    WakeSleepers(&ends_);
}

// ---------------------------------------------------------------------------------------------------------------------
// The publisher's calls

Status Service::RegisterPool(const char* name, const PoolShape& shape, uint64_t& poolGeneration)
{
    if (thread_.IsInChild()) {
        return {ENOTSUP, "a child of fork must call exec first"};
    }
    std::unique_ptr<BlockPool> pool(new (std::nothrow) BlockPool);
    const Status created = pool != nullptr ? pool->Create(shape) : Status{ENOMEM, "out of memory"};
    if (created.Failed()) {
        return created;
    }
    const MutexLock lock(mutex_);
    if (!Serves(name)) {
        return {ENOENT, "its service is not registered"};
    }
    if (pool_ != nullptr) {
        return {EEXIST, "it has a pool already"};
    }
    pool_ = std::move(pool);
    poolGeneration = ++poolGeneration_;
    bytesQueued_ = 0;
    for (size_t index = 0; index < readersEnd_; ++index) {
        Reader* const reader = readers_[index].get();
        const Status introduced = reader != nullptr && reader->attached ? reader->Introduce(*pool_) : Status{};
        if (introduced.Failed()) {
            CutOff(*reader, introduced.cause);
        }
    }
    return {};
}

int Service::Allocate(uint64_t poolGeneration, uint32_t size, uint64_t& block)
{
    const MutexLock lock(mutex_);
    if (life_ != Life::SERVING || pool_ == nullptr || poolGeneration != poolGeneration_) {
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
    const uint64_t use = NextUse();
    block = PackHandle(pool_->Allocate(size, use), use);
    return 0;
}

int Service::Write(uint64_t block, const void* data, uint32_t size, uint32_t offset)
{
    const MutexLock lock(mutex_);
    if (!IsAllocated(poolGeneration_, block)) {
        return -EBADF;
    }
    return pool_->Write(IndexOf(block), data, size, offset) ? 0 : -EMSGSIZE;
}

// Who must be woken once the lock is let go, because that is a system call. A reader may be gone by then: its address
// may be used all the same.
struct Service::Sleepers {
    void Add(const BellWord* word)
    {
        if (word != nullptr) {
            words[count++] = word;
        }
    }
    void Wake() const
    {
        std::for_each(words.begin(), words.begin() + count, WakeSleepers);
    }

    std::array<const BellWord*, OBSERVER_LIMIT + 1> words;
    size_t count = 0;
};

int Service::Enqueue(uint64_t reader, uint64_t poolGeneration, uint64_t block)
{
    Sleepers sleepers;
    {
        const MutexLock lock(mutex_);
        if (!IsAllocated(poolGeneration, block)) {
            return -EBADF;
        }
        Reader* const to = FindAttached(reader);
        if (to == nullptr) {
            return -ENOTCONN;
        }
        SetCurrent(reader);
        const BlockQueue::Appended appended = to->queue.Append(IndexOf(block), *pool_);
        sleepers.Add(appended.wake);
        bytesQueued_ += appended.wake != nullptr ? TAKE_BACK_BYTES : appended.length;
        if (observerCount_ != 0) {
            CopyToObservers(IndexOf(block), appended.length, sleepers);
        }
    }
    sleepers.Wake();
    return 0;
}

int Service::Free(uint64_t poolGeneration, uint64_t block)
{
    const MutexLock lock(mutex_);
    if (!IsAllocated(poolGeneration, block)) {
        return -EBADF;
    }
    pool_->Free(IndexOf(block));
    return 0;
}

int Service::ReaderCount(const char* name) const
{
    const MutexLock lock(mutex_);
    const auto announced = [](const auto& reader) { return reader != nullptr && reader->announced; };
    return Serves(name) ? static_cast<int>(std::count_if(readers_.begin(), readers_.begin() + readersEnd_, announced))
                        : -1;
}

uint64_t Service::NextUse()
{
    lastUse_ = lastUse_ % (USE_LIMIT - 1) + 1;
    return lastUse_;
}

bool Service::Serves(const char* name) const
{
    return life_ == Life::SERVING && strcmp(name, name_.text) == 0;
}

bool Service::IsAllocated(uint64_t poolGeneration, uint64_t block) const
{
    return life_ == Life::SERVING && pool_ != nullptr && poolGeneration == poolGeneration_ &&
           pool_->IsAllocated(IndexOf(block), UseOf(block));
}

// Null also when it has been cut off.
Reader* Service::FindAttached(uint64_t handle) const
{
    const size_t index = IndexOf(handle);
    Reader* const reader = index < readersEnd_ ? readers_[index].get() : nullptr;
    const bool found = reader != nullptr && reader->Handle() == handle && reader->attached &&
                       reader->role == Role::READER && reader->cutOffCause == nullptr;
    return found ? reader : nullptr;
}

void Service::SetCurrent(uint64_t handle)
{
    if (current_ == handle) {
        return;
    }
    Reader* const superseded = FindAttached(current_);
    if (superseded != nullptr) {
        superseded->BeginToSupersede(Clock::now());
    }
    current_ = handle;
}

void Service::Replenish()
{
    bytesQueued_ = 0;
    Reader* const current = FindAttached(current_);
    if (current != nullptr && !current->queue.TakeBackConsumed(*pool_)) {
        CutOff(*current, RING_MAKES_NO_SENSE);
    }
    // Other readers matter only when nothing is left, so that the cost of a record does not grow with their number.
    const uint32_t queuedByCurrent = current != nullptr ? current->queue.Queued() : 0;
    if (pool_->Exhausted() && pool_->Queued() != queuedByCurrent) {
        TakeBackFromOthers(current);
    }
}

void Service::TakeBackFromOthers(const Reader* current)
{
    const Clock::time_point now = Clock::now();
    for (const bool mayCutOff : {false, true}) {
        for (size_t index = 0; index < readersEnd_ && pool_->Exhausted(); ++index) {
            Reader* const reader = readers_[index].get();
            if (reader == nullptr || reader == current || reader->role != Role::READER || reader->queue.Queued() == 0) {
                continue;
            }
            if (!reader->queue.TakeBackConsumed(*pool_)) {
                CutOff(*reader, RING_MAKES_NO_SENSE);
            } else if (mayCutOff && reader->HasStalled(now)) {
                CutOff(*reader, "it is not the current reader, held blocks of an empty pool and did not read");
            }
        }
    }
}

// The service thread, which must hear of it, hangs up.
void Service::CutOff(Reader& reader, const char* cause)
{
    reader.CutOff(pool_.get(), cause);
    thread_.Wake();
}

// After the current reader has been served. The block is still its own: consumed ones are taken back under this lock.
void Service::CopyToObservers(uint32_t block, uint32_t length, Sleepers& sleepers)
{
    for (size_t i = 0; i < observerCount_; ++i) {
        const BellWord* wake = nullptr;
        if (!observers_[i]->QueueCopy(pool_->Bytes(block), length, wake)) {
            CutOff(*observers_[i], RING_MAKES_NO_SENSE);
        }
        sleepers.Add(wake);
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// The service thread's side

bool Service::IsEnding() const
{
    const MutexLock lock(mutex_);
    return life_ == Life::ENDING;
}

const Endpoint* Service::CurrentEndpoint() const
{
    const MutexLock lock(mutex_);
    return endpoint_.get();
}

IAMFileOperations Service::Notifications() const
{
    const MutexLock lock(mutex_);
    return quiet_ || exiting_ ? IAMFileOperations{} : operations_;
}

Status Service::Add(std::unique_ptr<Reader> reader)
{
    rlimit descriptors{};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    const size_t limit = std::min<rlim_t>(READER_LIMIT, descriptors.rlim_cur / 2);
    const MutexLock lock(mutex_);
    size_t all = 0;
    size_t ofProcess = 0;
    size_t place = readersEnd_;
    for (size_t index = 0; index < readersEnd_; ++index) {
        const Reader* const other = readers_[index].get();
        place = other == nullptr ? std::min(place, index) : place;
        all += other != nullptr ? 1 : 0;
        ofProcess += other != nullptr && other->pid == reader->pid ? 1 : 0;
    }
    if (all >= limit) {
        return {EMFILE, "there are too many connections"};
    }
    if (ofProcess >= limit / 2) {
        return {EMFILE, "the process has too many connections"};
    }
    reader->Name(name_.text, PackHandle(place, NextUse()));
    readers_[place] = std::move(reader);
    readersEnd_ = std::max(readersEnd_, place + 1);
    return {};
}

Reader* Service::ReaderAt(size_t index) const
{
    const MutexLock lock(mutex_);
    return index < readersEnd_ ? readers_[index].get() : nullptr;
}

Status Service::Attach(Reader& reader)
{
    const MutexLock lock(mutex_);
    const bool observes = reader.role == Role::OBSERVER;
    if (life_ != Life::SERVING) {
        return {ESHUTDOWN, "the service is being ended"};
    }
    if (observes && observerCount_ == OBSERVER_LIMIT) {
        return {EMFILE, "there are too many observers"};
    }
    const Status introduced = pool_ != nullptr ? reader.Introduce(*pool_) : Status{};
    if (introduced.Failed()) {
        return introduced;
    }
    reader.attached = true;
    if (observes) {
        observers_[observerCount_++] = &reader;
    }
    return {};
}

uint32_t Service::List(ListedReader* readers) const
{
    const MutexLock lock(mutex_);
    uint32_t count = 0;
    for (size_t index = 0; index < readersEnd_; ++index) {
        const Reader* const reader = readers_[index].get();
        if (reader != nullptr && reader->attached) {
            const uint32_t current = reader->Handle() == current_ ? LISTED_CURRENT : 0;
            const uint32_t observer = reader->role == Role::OBSERVER ? LISTED_OBSERVER : 0;
            readers[count++] = {reader->pid, current | observer};
        }
    }
    return count;
}

void Service::MakeCurrent(Reader& reader)
{
    const MutexLock lock(mutex_);
    SetCurrent(reader.Handle());
    reader.announced = true;
}

std::unique_ptr<Reader> Service::Remove(Reader& reader)
{
    const MutexLock lock(mutex_);
    // At the end of the service nothing is written to a block any more: the reader may deliver what it has.
    if (reader.attached && life_ == Life::SERVING) {
        reader.TakeBlocks(pool_.get());
    }
    auto* const end = observers_.begin() + observerCount_;
    observerCount_ = static_cast<size_t>(std::remove(observers_.begin(), end, &reader) - observers_.begin());
    return std::move(readers_[IndexOf(reader.Handle())]);
}

}  // namespace host_platform::iam

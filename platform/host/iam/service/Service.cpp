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

// Consumed blocks are taken back once this many bytes have been queued since the last time. Looking at the reader's
// count costs a cache miss, so small records share one look; large ones fill the caches soon, so their blocks come back
// after a few and are used again while they are warm.
constexpr uint64_t TAKE_BACK_BYTES = uint64_t{16} * 1024;

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
    {
        const MutexLock lock(lifeMutex_);
        if (life_ == Life::SERVING && strcmp(name, name_.text) == 0) {
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
        snprintf(name_.text, sizeof name_.text, "%s", name);
    }
    const Status status = Start(name);
    if (status.Failed()) {
        const MutexLock lock(lifeMutex_);
        life_ = Life::IDLE;
    }
    return status;
}

Status Service::Start(const char* name)
{
    std::unique_ptr<Endpoint> endpoint(new (std::nothrow) Endpoint);
    if (endpoint == nullptr) {
        return {ENOMEM, "out of memory"};
    }
    Status status = endpoint->Create(name);
    if (!status.Failed()) {
        status = thread_.Start();
    }
    // At every start: what was built since the last one, and is destroyed earlier, must not hear of a reader any more.
    if (!status.Failed() && std::atexit([] { Instance().EndAtExit(); }) != 0) {
        status = {ENOMEM, "no exit handler can be registered"};
    }
    if (status.Failed()) {
        return status;
    }
    const MutexLock lock(lifeMutex_);
    status = thread_.Watch(*endpoint);
    if (!status.Failed()) {
        endpoint_ = std::move(endpoint);
        life_ = Life::SERVING;
    }
    return status;
}

int Service::End(uint64_t poolGeneration)
{
    if (!thread_.IsInThisProcess()) {
        return -EBADF;
    }
    const MutexLock lock(lifeMutex_);
    {
        const MutexLock poolLock(mutex_);
        if (servingGeneration_ == 0 || servingGeneration_ != poolGeneration) {
            return -EBADF;
        }
    }
    const bool insideNotification = thread_.IsCurrentThread();
    BeginEnd(insideNotification);
    if (!insideNotification) {
        WaitForEnd();
    }
    return 0;
}

// From here on nothing is delivered any more, in this life or another. What the readers have not read stays readable,
// and the pool is left to the kernel: another thread may be publishing still.
void Service::EndAtExit()
{
    if (!thread_.IsInThisProcess()) {
        return;
    }
    const MutexLock lock(lifeMutex_);
    exiting_ = true;
    if (life_ == Life::SERVING) {
        BeginEnd(true);
    }
    if (thread_.IsCurrentThread()) {
        endpoint_.reset();  // the thread will not come to it: the exit was called from inside a notification
    } else if (life_ == Life::ENDING) {
        WaitForEnd();
    }
}

void Service::BeginEnd(bool quiet)
{
    life_ = Life::ENDING;
    quiet_ = quiet;
    {
        const MutexLock lock(mutex_);
        servingGeneration_ = 0;
    }
    thread_.Wake();
}

void Service::WaitForEnd()
{
    const uint64_t before = ends_;
    while (ends_ == before) {
        ended_.Wait(lifeMutex_);
    }
}

void Service::FinishEnd()
{
    std::unique_ptr<Endpoint> endpoint;
    std::unique_ptr<BlockPool> pool;
    {
        const MutexLock lock(lifeMutex_);
        const MutexLock poolLock(mutex_);
        endpoint = std::move(endpoint_);
        pool = std::move(pool_);
        readersEnd_ = 0;
        if (exiting_) {
            static_cast<void>(pool.release());
        }
    }
    endpoint.reset();  // before anyone is told that the name is free
    pool.reset();
    const MutexLock lock(lifeMutex_);
    life_ = Life::IDLE;
    ++ends_;
    ended_.NotifyAll();
}

// ---------------------------------------------------------------------------------------------------------------------
// The publisher's calls

Status Service::RegisterPool(const char* name, const PoolShape& shape, uint64_t& poolGeneration)
{
    auto pool = std::unique_ptr<BlockPool>(new (std::nothrow) BlockPool);
    const BlockPool* const offered = pool.get();
    Status status = MayRegisterPool(name);
    if (!status.Failed()) {
        status = pool != nullptr ? pool->Create(shape) : Status{ENOMEM, "out of memory"};
    }
    if (status.Failed()) {
        return status;
    }
    const MutexLock lock(lifeMutex_);
    status = MayRegisterPoolNow(name);
    if (status.Failed()) {
        return status;
    }
    {
        const MutexLock poolLock(mutex_);
        pool_ = std::move(pool);
        servingGeneration_ = ++poolGeneration_;
        poolGeneration = poolGeneration_;
        bytesQueued_ = 0;
    }
    for (size_t index = 0; index < ReadersEnd(); ++index) {
        Reader* const reader = ReaderAt(index, Which::ATTACHED);
        if (reader != nullptr && reader->SendPool(*offered).Failed()) {
            const MutexLock poolLock(mutex_);
            CutOff(*reader, "it does not take its messages");
        }
    }
    thread_.Wake();
    return {};
}

Status Service::MayRegisterPool(const char* name)
{
    const MutexLock lock(lifeMutex_);
    return MayRegisterPoolNow(name);
}

Status Service::MayRegisterPoolNow(const char* name) const
{
    if (life_ != Life::SERVING || strcmp(name, name_.text) != 0) {
        return {ENOENT, "its service is not registered"};
    }
    const MutexLock lock(mutex_);
    if (pool_ != nullptr) {
        return {EEXIST, "it has a pool already"};
    }
    return {};
}

int Service::Allocate(uint64_t poolGeneration, uint32_t size, uint64_t& block)
{
    bool cutOff = false;
    int result = 0;
    {
        const MutexLock lock(mutex_);
        if (servingGeneration_ == 0 || poolGeneration != servingGeneration_) {
            return -EBADF;
        }
        if (size > pool_->Shape().blockStride) {
            return -EMSGSIZE;
        }
        if (bytesQueued_ >= TAKE_BACK_BYTES || pool_->Exhausted()) {
            Replenish();
            cutOff = std::exchange(someoneCutOff_, false);
        }
        if (pool_->Exhausted()) {
            result = -ENOBUFS;
        } else {
            lastUse_ = (lastUse_ + 1) % USE_LIMIT;
            block = PackHandle(HandleKind::BLOCK, pool_->Allocate(size, lastUse_), lastUse_);
        }
    }
    if (cutOff) {
        thread_.Wake();
    }
    return result;
}

int Service::Write(uint64_t block, const void* data, uint32_t size, uint32_t offset)
{
    const MutexLock lock(mutex_);
    if (!IsAllocated(servingGeneration_, block)) {
        return -EBADF;
    }
    return pool_->Write(IndexOf(block), data, size, offset) ? 0 : -EMSGSIZE;
}

int Service::Enqueue(uint64_t reader, uint64_t poolGeneration, uint64_t block)
{
    BlockQueue::Appended appended{};
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
        appended = to->queue.Append(IndexOf(block), *pool_);
        bytesQueued_ += appended.length;
    }
    // Outside the lock, because it is a system call. The reader may be gone by now: its address may be used all the
    // same.
    if (appended.wake != nullptr) {
        WakeSleeper(appended.wake);
    }
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

int Service::ReaderCount(const char* name)
{
    const MutexLock lock(lifeMutex_);
    if (life_ != Life::SERVING || strcmp(name, name_.text) != 0) {
        return -1;
    }
    const MutexLock readersLock(mutex_);
    const auto announced = [](const auto& reader) { return reader != nullptr && reader->announced; };
    return static_cast<int>(std::count_if(readers_.begin(), readers_.begin() + readersEnd_, announced));
}

bool Service::IsAllocated(uint64_t poolGeneration, uint64_t block) const
{
    return servingGeneration_ != 0 && poolGeneration == servingGeneration_ && KindOf(block) == HandleKind::BLOCK &&
           pool_->IsAllocated(IndexOf(block), UseOf(block));
}

// Null also when it has been cut off.
Reader* Service::FindAttached(uint64_t handle) const
{
    const size_t index = IndexOf(handle);
    Reader* const reader = index < readersEnd_ ? readers_[index].get() : nullptr;
    const bool found = reader != nullptr && reader->Handle() == handle && reader->attached;
    return found && reader->cutOffCause == nullptr ? reader : nullptr;
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
    if (current != nullptr) {
        TakeBack(*current);
    }
    // Other readers matter only when nothing is left, so that the cost of a record does not grow with their number.
    const uint32_t queuedByCurrent = current != nullptr ? current->queue.Queued() : 0;
    if (pool_->Exhausted() && pool_->Queued() != queuedByCurrent) {
        TakeBackFromOthers(current);
    }
}

void Service::TakeBackFromOthers(const Reader* current)
{
    const auto forEachOther = [this, current](const auto& act) HOST_REQUIRES(mutex_) {
        for (size_t index = 0; index < readersEnd_; ++index) {
            Reader* const reader = readers_[index].get();
            if (reader != nullptr && reader != current && reader->queue.Queued() != 0) {
                act(*reader);
            }
        }
    };
    forEachOther([this](Reader& reader) HOST_REQUIRES(mutex_) { TakeBack(reader); });
    if (!pool_->Exhausted()) {
        return;
    }
    const Clock::time_point now = Clock::now();
    forEachOther([this, now](Reader& reader) HOST_REQUIRES(mutex_) {
        if (reader.HasStalled(now)) {
            CutOff(reader, "it is not the current reader, held blocks of an empty pool and did not read");
        }
    });
}

void Service::TakeBack(Reader& reader)
{
    if (!reader.queue.TakeBackConsumed(*pool_)) {
        CutOff(reader, "its ring makes no sense");
    }
}

void Service::CutOff(Reader& reader, const char* cause)
{
    reader.CutOff(pool_.get(), cause);
    someoneCutOff_ = true;
}

// ---------------------------------------------------------------------------------------------------------------------
// The service thread's side

bool Service::IsEnding()
{
    const MutexLock lock(lifeMutex_);
    return life_ == Life::ENDING;
}

Endpoint* Service::CurrentEndpoint()
{
    const MutexLock lock(lifeMutex_);
    return endpoint_.get();
}

IAMFileOperations Service::Notifications()
{
    const MutexLock lock(lifeMutex_);
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
    for (size_t index = readersEnd_; index-- > 0;) {
        if (readers_[index] == nullptr) {
            place = index;
            continue;
        }
        ++all;
        ofProcess += readers_[index]->pid == reader->pid ? 1 : 0;
    }
    if (all >= limit) {
        return {EMFILE, "there are too many connections"};
    }
    if (ofProcess >= limit / 2) {
        return {EMFILE, "the process has too many connections"};
    }
    lastUse_ = (lastUse_ + 1) % USE_LIMIT;
    reader->Name(name_.text, PackHandle(HandleKind::READER, static_cast<uint32_t>(place), lastUse_));
    readers_[place] = std::move(reader);
    readersEnd_ = std::max(readersEnd_, place + 1);
    return {};
}

size_t Service::ReadersEnd() const
{
    const MutexLock lock(mutex_);
    return readersEnd_;
}

Reader* Service::ReaderAt(size_t index, Which which) const
{
    const MutexLock lock(mutex_);
    Reader* const reader = readers_[index].get();
    if (reader == nullptr) {
        return nullptr;
    }
    switch (which) {
        case Which::ALL:
            return reader;
        case Which::ATTACHED:
            return reader->attached ? reader : nullptr;
        case Which::CUT_OFF:
            return reader->cutOffCause != nullptr ? reader : nullptr;
    }
    return nullptr;
}

Status Service::Attach(Reader& reader)
{
    const MutexLock lock(lifeMutex_);
    if (life_ != Life::SERVING) {
        return {ESHUTDOWN, "the service is being ended"};
    }
    const BlockPool* pool = nullptr;
    {
        const MutexLock poolLock(mutex_);
        pool = pool_.get();
    }
    if (pool != nullptr) {
        const Status sent = reader.SendPool(*pool);
        if (sent.Failed()) {
            return sent;
        }
    }
    const MutexLock readersLock(mutex_);
    reader.attached = true;
    return {};
}

void Service::MakeCurrent(Reader& reader)
{
    const MutexLock lock(mutex_);
    SetCurrent(reader.Handle());
    reader.announced = true;
}

std::unique_ptr<Reader> Service::Remove(Reader& reader)
{
    const MutexLock lock(lifeMutex_);
    const MutexLock readersLock(mutex_);
    // At the end of the service nothing is written to a block any more: the reader may deliver what it has.
    if (reader.attached && life_ == Life::SERVING) {
        reader.TakeBlocks(pool_.get());
    }
    return std::move(readers_[IndexOf(reader.Handle())]);
}

}  // namespace host_platform::iam

#include "platform/host/iam/file/OpenFiles.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <new>

namespace host_platform::iam {
namespace {

// The numbers that rotate. Low ones are left to the rest of the process; very high ones would make the kernel's table
// of descriptors large.
constexpr int FIRST_NUMBER = 64;
constexpr int NUMBER_LIMIT = 4096;

constexpr int WAKE_AGAIN_MS = 1;

// What this thread read last. In the thread's static block, where no call is needed to find it.
struct LastRead {
    int fd;  // -1: nothing
    ResourceFile* file;
    uint64_t use;
    bool recordRead;
    Path resource;  // its own copy: the file may serve another one by now
};
__attribute__((tls_model("initial-exec"))) thread_local LastRead lastRead{-1, nullptr, 0, false, {}};

}  // namespace

OpenFiles& OpenFiles::Instance()
{
    alignas(OpenFiles) static unsigned char place[sizeof(OpenFiles)];
    static auto* const files = new (place) OpenFiles;
    return *files;
}

// ---------------------------------------------------------------------------------------------------------------------
// Opening and closing

Status OpenFiles::Open(const char* resource, Role role, int& fd)
{
    Status status = StartWatching();
    Slot* const slot = status.Failed() ? nullptr : Claim();
    if (slot == nullptr) {
        return status.Failed() ? status : Status{ENOMEM, "out of memory"};
    }
    status = slot->file.Connect(resource, role).Then([&] { return Publish(*slot, fd); });
    if (status.Failed()) {
        slot->file.Abandon();
    }
    return status;
}

OpenFiles::Slot* OpenFiles::Claim()
{
    const MutexLock lock(mutex_);
    for (Slot* slot = newest_; slot != nullptr; slot = slot->older) {
        if (slot->file.Claim()) {
            return slot;
        }
    }
    auto* const slot = new (std::nothrow) Slot;
    if (slot != nullptr) {
        slot->older = newest_;
        slot->file.Claim();
        newest_ = slot;
    }
    return slot;
}

Status OpenFiles::Publish(Slot& slot, int& fd)
{
    const MutexLock lock(mutex_);
    epoll_event event{};
    event.events = EPOLLIN | EPOLLRDHUP | EPOLLET;  // also for what has happened before
    event.data.ptr = &slot.file;
    if (epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, slot.file.Socket().Get(), &event) != 0) {
        return {errno, "its socket cannot be watched"};
    }
    const int number = NextNumber(slot.file.Socket());
    if (number < 0) {
        return {errno, "there is no descriptor for it"};
    }
    slot.number = number;
    slot.file.Publish();
    fd = number;
    return {};
}

int OpenFiles::NextNumber(const UniqueFd& socket)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const int end = static_cast<int>(std::min<rlim_t>(limit.rlim_cur, NUMBER_LIMIT));
    const int first = std::min(FIRST_NUMBER, end / 2);
    if (nextNumber_ < first || nextNumber_ >= end) {
        nextNumber_ = first;
    }
    int fd = fcntl(socket.Get(), F_DUPFD_CLOEXEC, nextNumber_);
    if (fd < 0 && (errno == EMFILE || errno == EINVAL)) {
        fd = fcntl(socket.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);  // everything above is taken
    }
    nextNumber_ = fd + 1;
    return fd;
}

bool OpenFiles::Close(int fd)
{
    if (!watcher_.Runs()) {
        return false;
    }
    Slot* slot = nullptr;
    {
        const MutexLock lock(mutex_);
        slot = Find(fd);
        if (slot == nullptr) {
            return false;
        }
        slot->number = -1;
    }
    if (lastRead.file == &slot->file && lastRead.use == slot->file.Use()) {
        lastRead.fd = -1;
    }
    slot->file.Close();
    close(fd);  // last: from here on the number may be another file's
    return true;
}

OpenFiles::Slot* OpenFiles::Find(int fd) const
{
    Slot* slot = fd >= 0 ? newest_.load() : nullptr;
    while (slot != nullptr && slot->number != fd) {
        slot = slot->older;
    }
    return slot;
}

// ---------------------------------------------------------------------------------------------------------------------
// Reading

int64_t OpenFiles::Read(int fd, void* buffer, size_t length)
{
    lastRead.recordRead = false;
    if ((lastRead.fd != fd || fd < 0) && !Remember(fd)) {
        return -EBADF;
    }
    const int64_t result = lastRead.file->Read(lastRead.use, buffer, length);
    lastRead.recordRead = result >= 0;
    if (result == -EBADF) {
        lastRead.fd = -1;
    }
    return result;
}

bool OpenFiles::Remember(int fd)
{
    const MutexLock lock(mutex_);
    Slot* const slot = Find(fd);
    if (slot != nullptr) {
        lastRead = {fd, &slot->file, slot->file.Use(), false, slot->file.Resource()};
    }
    return slot != nullptr;
}

const char* OpenFiles::ResourceOfThisThread()
{
    return lastRead.recordRead ? lastRead.resource.text : nullptr;
}

uint64_t OpenFiles::LostRecords(const char* resource)
{
    uint64_t lost = 0;
    ForEachOpen(resource, [&lost](const ResourceFile& file) { lost += file.Lost(); });
    return lost;
}

bool OpenFiles::HasLostPlace(const char* resource)
{
    bool lost = false;
    ForEachOpen(resource, [&lost](const ResourceFile& file) { lost = lost || file.HasLostPlace(); });
    return lost;
}

// The lock keeps open what has a number.
template <typename Act>
void OpenFiles::ForEachOpen(const char* resource, Act act)
{
    const MutexLock lock(mutex_);
    for (const Slot* slot = newest_; slot != nullptr; slot = slot->older) {
        if (slot->number >= 0 && strcmp(slot->file.Resource().text, resource) == 0) {
            act(slot->file);
        }
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// Watching

Status OpenFiles::StartWatching()
{
    if (watcher_.Runs()) {
        return {};
    }
    if (watcher_.IsInChild()) {
        return {ENOTSUP, "a child of fork must call exec first"};
    }
    const MutexLock lock(startMutex_);
    if (watcher_.Runs()) {
        return {};
    }
    epoll_ = AboveStandard(epoll_create1(EPOLL_CLOEXEC));
    if (!epoll_) {
        return {errno, "the watching thread cannot be set up"};
    }
    const auto run = [](void* files) -> void* {
        static_cast<OpenFiles*>(files)->Watch();
        return nullptr;
    };
    return watcher_.Start("iam-watcher", run, this);
}

void OpenFiles::Watch() const
{
    epoll_event events[64];
    for (bool again = false;;) {
        const int count = epoll_wait(epoll_.Get(), events, std::size(events), again ? WAKE_AGAIN_MS : -1);
        const Slot* const newest = newest_;  // no event points to a file that is not complete
        for (int i = 0; i < count; ++i) {
            static_cast<ResourceFile*>(events[i].data.ptr)->CallAttention();
        }
        again = false;
        for (const Slot* slot = newest; slot != nullptr; slot = slot->older) {
            again = slot->file.WakeInattentive() || again;
        }
    }
}

}  // namespace host_platform::iam

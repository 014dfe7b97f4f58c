#include "platform/host/iam/file/OpenFiles.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>

namespace host_platform::iam {
namespace {

// The numbers that rotate. Low ones are left to the rest of the process; very high ones would make the kernel's table
// of descriptors large.
constexpr int FIRST_NUMBER = 64;
constexpr int NUMBER_LIMIT = 4096;

// What this thread read last. In the thread's static block, where no call is needed to find it.
struct LastRead {
    int fd;  // -1: nothing
    ResourceFile* file;
    uint64_t use;
};
__attribute__((tls_model("initial-exec"))) thread_local LastRead lastRead{-1, nullptr, 0};

}  // namespace

OpenFiles& OpenFiles::Instance()
{
    alignas(OpenFiles) static unsigned char place[sizeof(OpenFiles)];
    static auto* const files = new (place) OpenFiles;
    return *files;
}

Status OpenFiles::Open(const char* resource, int& fd)
{
    Slot* const slot = Claim();
    if (slot == nullptr) {
        return {ENOMEM, "out of memory"};
    }
    Status status = slot->file.Connect(resource);
    if (!status.Failed()) {
        status = watcher_.Start();
    }
    if (!status.Failed()) {
        status = watcher_.Follow(slot->file);
    }
    if (!status.Failed()) {
        status = GiveNumber(*slot, fd);
    }
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

Status OpenFiles::GiveNumber(Slot& slot, int& fd)
{
    const MutexLock lock(mutex_);
    const int number = NextNumber(slot.file.Socket());
    if (number < 0) {
        return {errno, "there is no descriptor for it"};
    }
    slot.number = number;
    slot.file.Publish();
    fd = number;
    return {};
}

int OpenFiles::NextNumber(int socket)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const int end = static_cast<int>(std::min<rlim_t>(limit.rlim_cur, NUMBER_LIMIT));
    const int first = std::min(FIRST_NUMBER, end / 2);
    if (nextNumber_ < first || nextNumber_ >= end) {
        nextNumber_ = first;
    }
    int fd = fcntl(socket, F_DUPFD_CLOEXEC, nextNumber_);
    if (fd < 0 && (errno == EMFILE || errno == EINVAL)) {
        fd = fcntl(socket, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);  // everything above is taken
    }
    nextNumber_ = fd + 1;
    return fd;
}

OpenFiles::Slot* OpenFiles::Find(int fd) const
{
    Slot* slot = fd >= 0 ? newest_.load() : nullptr;
    while (slot != nullptr && slot->number != fd) {
        slot = slot->older;
    }
    return slot;
}

bool OpenFiles::Remember(int fd)
{
    const MutexLock lock(mutex_);
    Slot* const slot = Find(fd);
    if (slot == nullptr) {
        return false;
    }
    lastRead = {fd, &slot->file, slot->file.Use()};
    return true;
}

int64_t OpenFiles::Read(int fd, void* buffer, size_t length)
{
    if ((lastRead.fd != fd || fd < 0) && !Remember(fd)) {
        return -EBADF;
    }
    const int64_t result = lastRead.file->Read(lastRead.use, buffer, length);
    if (result == -EBADF) {
        lastRead.fd = -1;
    }
    return result;
}

bool OpenFiles::Close(int fd)
{
    if (!watcher_.IsInThisProcess()) {
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
    const uint64_t use = slot->file.Use();  // stays until this thread has closed it
    slot->file.Close();
    close(fd);  // last: from here on the number may be another file's
    if (lastRead.file == &slot->file && lastRead.use == use) {
        lastRead.fd = -1;
    }
    return true;
}

bool OpenFiles::WakeInattentive() const
{
    bool someone = false;
    for (const Slot* slot = newest_; slot != nullptr; slot = slot->older) {
        someone = slot->file.WakeInattentive() || someone;
    }
    return someone;
}

}  // namespace host_platform::iam

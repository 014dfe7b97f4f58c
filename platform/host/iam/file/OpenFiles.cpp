#include "platform/host/iam/file/OpenFiles.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace host_platform::iam {
namespace {

// The numbers that rotate. Low ones are left to the rest of the process; very high ones would make the kernel's table
// of descriptors large.
constexpr int FIRST_NUMBER = 64;
constexpr int NUMBER_LIMIT = 4096;

// What this thread read last: a bare view for the fast path, in the thread's static block where no call is needed to
// find it, and the owner that keeps it alive. The view outlives the owner, which empties it.
struct View {
    int fd = -1;
    ResourceFile* connection = nullptr;
    bool ownerGone = false;
};
__attribute__((tls_model("initial-exec"))) thread_local View lastRead;

struct Owner {
    std::shared_ptr<ResourceFile> connection;
    ~Owner()
    {
        lastRead = {-1, nullptr, true};
    }
};
thread_local Owner lastReadOwner;

void Remember(int fd, const std::shared_ptr<ResourceFile>& connection)
{
    if (!lastRead.ownerGone) {  // else the thread is ending
        lastReadOwner.connection = connection;
        lastRead = {fd, connection.get(), false};
    }
}

void Forget()
{
    if (!lastRead.ownerGone) {
        lastRead = {};
        lastReadOwner.connection.reset();
    }
}

}  // namespace

OpenFiles& OpenFiles::Instance()
{
    static auto* const table = new OpenFiles;
    return *table;
}

Status OpenFiles::Add(std::shared_ptr<ResourceFile> connection, int& fd)
{
    const MutexLock lock(mutex_);
    UniqueFd number(NextNumber(connection->Socket()));
    if (!number) {
        return {errno, "there is no descriptor for it"};
    }
    connections_[number.Get()] = std::move(connection);
    fd = number.Release();
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

std::shared_ptr<ResourceFile> OpenFiles::Find(int fd)
{
    const MutexLock lock(mutex_);
    const auto found = connections_.find(fd);
    return found != connections_.end() ? found->second : nullptr;
}

int64_t OpenFiles::Read(int fd, void* buffer, size_t length)
{
    if (lastRead.fd != fd || fd < 0) {
        const std::shared_ptr<ResourceFile> connection = Find(fd);
        if (connection == nullptr) {
            return -EBADF;
        }
        Remember(fd, connection);
        return connection->Read(buffer, length);
    }
    // Nothing that runs on this thread meanwhile can make it forget the connection.
    const int64_t result = lastRead.connection->Read(buffer, length);
    if (result == -EBADF) {
        Forget();
    }
    return result;
}

bool OpenFiles::Close(int fd)
{
    std::shared_ptr<ResourceFile> connection;
    {
        const MutexLock lock(mutex_);
        const auto found = connections_.find(fd);
        if (found == connections_.end()) {
            return false;
        }
        connection = std::move(found->second);
        connections_.erase(found);
    }
    connection->Close();
    close(fd);  // last: from here on the number may be another file's
    if (lastRead.connection == connection.get()) {
        Forget();
    }
    return true;
}

}  // namespace host_platform::iam

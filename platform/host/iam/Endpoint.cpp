#include "platform/host/iam/Endpoint.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace host_platform::iam {
namespace {

constexpr int BACKLOG = 128;
constexpr int LOCK_ATTEMPTS = 16;

}  // namespace

Endpoint::~Endpoint()
{
    // Someone may have emptied the directory, and another process may serve the name by now: only what is still ours
    // is removed.
    if (lock_ && LockFileIsOurs()) {
        if (listener_) {
            unlink(socketPath_.text);
        }
        unlink(lockPath_);
    }
}

Status Endpoint::Create(const char* resource)
{
    Status status = FindSocketPath(Missing::MAKE, resource, socketPath_);
    if (status.Failed()) {
        return status;
    }
    // No socket has this name: a '.' of a resource's name is encoded.
    snprintf(lockPath_, sizeof lockPath_, "%s.lock", socketPath_.text);
    status = TakeLock();
    return status.Failed() ? status : Listen();
}

Status Endpoint::TakeLock()
{
    for (int attempt = 0; attempt < LOCK_ATTEMPTS; ++attempt) {
        UniqueFd lock = AboveStandard(open(lockPath_, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600));
        if (!lock) {
            return {errno, errno == ELOOP ? "its lock file is a link" : "its lock file cannot be opened"};
        }
        struct stat status = {};
        if (fstat(lock.Get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_uid != geteuid()) {
            return {EACCES, "its lock file is not a file of this user"};
        }
        if (flock(lock.Get(), LOCK_EX | LOCK_NB) != 0) {
            return errno == EWOULDBLOCK ? Status{EBUSY, "another process serves it"}
                                        : Status{errno, "its lock file cannot be locked"};
        }
        lock_ = std::move(lock);
        if (LockFileIsOurs()) {
            return {};
        }
        lock_.Reset();  // its last owner removed it between the open and the lock
    }
    return {EBUSY, "its lock file keeps disappearing"};
}

bool Endpoint::LockFileIsOurs() const
{
    struct stat held = {};
    struct stat named = {};
    return fstat(lock_.Get(), &held) == 0 && lstat(lockPath_, &named) == 0 && held.st_ino == named.st_ino &&
           held.st_dev == named.st_dev;
}

Status Endpoint::Listen()
{
    UniqueFd listener = AboveStandard(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener) {
        return {errno, "a socket cannot be made"};
    }
    if (unlink(socketPath_.text) != 0 && errno != ENOENT) {
        return {errno, "the socket left by a dead process cannot be removed"};
    }
    const sockaddr_un address = AddressOf(socketPath_);
    if (bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return {errno, "its socket cannot be bound"};
    }
    listener_ = std::move(listener);  // from here on the socket's file is ours to remove
    if (listen(listener_.Get(), BACKLOG) != 0) {
        return {errno, "its socket does not listen"};
    }
    return {};
}

}  // namespace host_platform::iam

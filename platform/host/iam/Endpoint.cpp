#include "platform/host/iam/Endpoint.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#ifndef SO_PASSRIGHTS
#define SO_PASSRIGHTS 83
#endif

namespace host_platform::iam {
namespace {

constexpr int BACKLOG = 128;
constexpr int LOCK_ATTEMPTS = 16;

UniqueFd MakeSocket()
{
    return AboveStandard(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

template <typename Call>
int WithAddress(Call call, const UniqueFd& socket, const Path& path)
{
    const sockaddr_un address = AddressOf(path);
    return call(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

}  // namespace

Endpoint::~Endpoint()
{
    if (listener_ && SocketIsOurs()) {
        unlink(socketPath_.text);
    }
    if (lock_ && LockFileIsOurs()) {
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
    if (!status.Failed()) {
        status = ClearPlace();
    }
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

bool Endpoint::SocketIsOurs() const
{
    struct stat named = {};
    return lstat(socketPath_.text, &named) == 0 && named.st_ino == inode_ && named.st_dev == device_;
}

// Makes room for the socket: removes one that nobody listens on, and nothing else.
Status Endpoint::ClearPlace() const
{
    struct stat status = {};
    if (lstat(socketPath_.text, &status) != 0) {
        return errno == ENOENT ? Status{} : Status{errno, "what is in its place is not known"};
    }
    const UniqueFd probe = MakeSocket();
    if (!probe) {
        return {errno, "a socket cannot be made"};
    }
    const int connected = S_ISSOCK(status.st_mode) ? WithAddress(connect, probe, socketPath_) : -1;
    if (!S_ISSOCK(status.st_mode) || (connected != 0 && errno == EPROTOTYPE)) {
        return {EEXIST, "a foreign file is in its place"};
    }
    if (connected == 0 || errno == EAGAIN) {  // EAGAIN: so many wait for it that it has no room for this one
        return {EBUSY, "another process serves it"};
    }
    if (errno != ECONNREFUSED) {
        return {errno, "the socket in its place cannot be asked"};
    }
    if (unlink(socketPath_.text) != 0 && errno != ENOENT) {
        return {errno, "the socket left by a dead process cannot be removed"};
    }
    return {};
}

Status Endpoint::Listen()
{
    UniqueFd listener = MakeSocket();
    if (!listener) {
        return {errno, "a socket cannot be made"};
    }
    // Nobody passes a descriptor to the service: one that takes long to be closed would hold up its thread. Readers
    // inherit this. A kernel that does not know it has it not, and the service is as good as before.
    const int off = 0;
    setsockopt(listener.Get(), SOL_SOCKET, SO_PASSRIGHTS, &off, sizeof off);
    if (WithAddress(bind, listener, socketPath_) != 0) {
        return {errno, "its socket cannot be bound"};
    }
    struct stat status = {};
    if (lstat(socketPath_.text, &status) != 0) {
        return {errno, "its socket has disappeared"};
    }
    device_ = status.st_dev;
    inode_ = status.st_ino;
    listener_ = std::move(listener);  // from here on the socket's file is ours to remove
    if (listen(listener_.Get(), BACKLOG) != 0) {
        return {errno, "its socket does not listen"};
    }
    return {};
}

void Endpoint::Watch(int notice) const
{
    constexpr uint32_t REMOVED = IN_DELETE_SELF | IN_MOVE_SELF | IN_DONT_FOLLOW;
    Path directory = socketPath_;
    *strrchr(directory.text, '/') = '\0';
    inotify_add_watch(notice, directory.text, REMOVED);
    // A file that somebody holds open has only its attributes changed when its name goes.
    inotify_add_watch(notice, socketPath_.text, REMOVED | IN_ATTRIB);
    inotify_add_watch(notice, lockPath_, REMOVED | IN_ATTRIB);
}

bool Endpoint::IsGone() const
{
    return !SocketIsOurs() || !LockFileIsOurs();
}

}  // namespace host_platform::iam

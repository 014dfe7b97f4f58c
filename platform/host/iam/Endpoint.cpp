#include "platform/host/iam/Endpoint.h"

#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#ifndef SO_PASSRIGHTS
#define SO_PASSRIGHTS 83
#endif

namespace host_platform::iam {
namespace {

constexpr int BACKLOG = 128;
constexpr int LOCK_ATTEMPTS = 100;

UniqueFd MakeSocket()
{
    return AboveStandard(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

template <typename Call>
int WithAddress(Call call, const UniqueFd& socket, const Path& path)
{
    const sockaddr_un address = AddressOf(path);
    return call(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

// Whoever holds it is done in a moment.
Status Lock(const UniqueFd& directory)
{
    for (int attempt = 0; flock(directory.Get(), LOCK_EX | LOCK_NB) != 0; ++attempt) {
        if (errno != EWOULDBLOCK || attempt == LOCK_ATTEMPTS) {
            return {errno, "the runtime directory cannot be locked"};
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return {};
}

}  // namespace

Endpoint::~Endpoint()
{
    if (listener_ && !IsGone()) {
        unlink(socketPath_.text);
    }
}

Status Endpoint::Create(const char* resource)
{
    UniqueFd directory;
    return OpenRuntimeDirectory(Missing::MAKE, socketPath_, directory)
        .Then([&] { return AppendName(resource, socketPath_); })
        .Then([&] { return Lock(directory); })
        .Then([&] { return ClearPlace(); })
        .Then([&] { return Listen(); });
}

Status Endpoint::ClearPlace() const
{
    struct stat status = {};
    if (lstat(socketPath_.text, &status) != 0) {
        return Check(errno == ENOENT, "what stands in its place is not known");
    }
    const UniqueFd probe = MakeSocket();
    if (!probe) {
        return {errno, "a socket cannot be made"};
    }
    const int connected = S_ISSOCK(status.st_mode) ? WithAddress(connect, probe, socketPath_) : -1;
    if (!S_ISSOCK(status.st_mode) || (connected != 0 && errno == EPROTOTYPE)) {
        return {EEXIST, "a foreign file stands in its place"};
    }
    if (connected == 0 || errno == EAGAIN) {  // EAGAIN: so many wait for it that it has no room for this one
        return {EBUSY, "another process serves it"};
    }
    if (errno != ECONNREFUSED) {
        return {errno, "the socket in its place cannot be asked"};
    }
    return Check(unlink(socketPath_.text) == 0 || errno == ENOENT,
                 "the socket left by a dead process cannot be removed");
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
    setsockopt(listener.Get(), SOL_SOCKET, SO_PASSRIGHTS, &off, sizeof(off));
    struct stat status = {};
    if (WithAddress(bind, listener, socketPath_) != 0 || lstat(socketPath_.text, &status) != 0) {
        return {errno, "its socket cannot be bound"};
    }
    device_ = status.st_dev;
    inode_ = status.st_ino;
    listener_ = std::move(listener);  // from here on the socket's file is ours to remove
    return Check(listen(listener_.Get(), BACKLOG) == 0, "its socket does not listen");
}

void Endpoint::Watch(int notice) const
{
    constexpr uint32_t REMOVED = IN_DELETE_SELF | IN_MOVE_SELF | IN_DONT_FOLLOW;
    Path directory = socketPath_;
    *strrchr(directory.text, '/') = '\0';
    inotify_add_watch(notice, directory.text, REMOVED);
    // A file that somebody holds open has only its attributes changed when its name goes.
    inotify_add_watch(notice, socketPath_.text, REMOVED | IN_ATTRIB);
}

bool Endpoint::IsGone() const
{
    struct stat named = {};
    return lstat(socketPath_.text, &named) != 0 || named.st_ino != inode_ || named.st_dev != device_;
}

}  // namespace host_platform::iam

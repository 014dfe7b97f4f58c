#include "platform/host/slog/LineSink.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>

#include "platform/host/slog/ErrnoKeeper.h"

namespace host_platform::slog {
namespace {

// An open file description of this library's own for what the descriptor stands for, or -1 where there is none to be
// had: no /proc, a terminal of another user, no descriptor left.
int OpenOnceMore(int fd)
{
    char path[32];
    std::snprintf(path, sizeof(path), "/proc/self/fd/%d", fd);
    // Appending, because the number may have come to stand for a file in this very moment.
    return OpenDestination(path, O_WRONLY | O_APPEND);
}

// The functions below return what write would, and fail with EAGAIN where it would wait.

// Terminals, FIFOs with a name, and all pipes of older kernels do not know the flag. The last resort may wait after
// all: when another process fills a pipe just after the poll, or a terminal has less room than the line needs.
ssize_t WriteWithoutWaiting(int fd, const char* data, size_t size)
{
    const iovec line{const_cast<char*>(data), size};
    ssize_t written = pwritev2(fd, &line, 1, -1, RWF_NOWAIT);
    if (written >= 0 || (errno != EOPNOTSUPP && errno != ENOSYS)) {
        return written;
    }
    const int own = OpenOnceMore(fd);
    if (own >= 0) {
        written = write(own, data, size);
        const ErrnoKeeper errnoKeeper;
        close(own);
        return written;
    }
    pollfd room{fd, POLLOUT, 0};
    if (poll(&room, 1, 0) != 1) {
        errno = EAGAIN;
        return -1;
    }
    return write(fd, data, size);
}

// Keeps the SIGPIPE of a broken pipe from reaching anybody.
ssize_t WriteToPipe(int fd, const char* data, size_t size)
{
    sigset_t pipeSignal;
    sigset_t before;
    sigset_t pending;
    sigemptyset(&pipeSignal);
    sigemptyset(&pending);
    sigaddset(&pipeSignal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSignal, &before);
    if (sigismember(&before, SIGPIPE) == 1) {
        sigpending(&pending);  // where it was not blocked, it has been delivered
    }
    const ssize_t written = WriteWithoutWaiting(fd, data, size);
    const ErrnoKeeper errnoKeeper;
    if (written < 0 && errno == EPIPE && sigismember(&pending, SIGPIPE) == 0) {
        const timespec now{};
        while (sigtimedwait(&pipeSignal, nullptr, &now) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return written;
}

// Looks at each line what the descriptor stands for: the process may have replaced it.
ssize_t WriteNow(int fd, const char* data, size_t size)
{
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        return -1;
    }
    switch (status.st_mode & S_IFMT) {
        case S_IFREG:
            return write(fd, data, size);
        case S_IFSOCK:
            return send(fd, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        case S_IFIFO:
            return WriteToPipe(fd, data, size);
        default:
            return WriteWithoutWaiting(fd, data, size);
    }
}

}  // namespace

int OpenDestination(const char* path, int flags)
{
    const int fd = open(path, flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0640);
    if (fd < 0 || fd > STDERR_FILENO) {
        return fd;
    }
    const int high = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const ErrnoKeeper errnoKeeper;
    close(fd);
    return high;
}

void LineSink::Write(LogLine& line)
{
    if (broken_) {
        return;
    }
    const unsigned int leftOut = leftOut_.exchange(0);
    const bool torn = torn_.exchange(false);
    line.Finish(torn, leftOut);
    const ssize_t written =
        owner_ == Owner::LIBRARY ? write(fd_, line.Data(), line.Size()) : WriteNow(fd_, line.Data(), line.Size());
    if (written == static_cast<ssize_t>(line.Size())) {
        return;
    }
    if (written < 0 && errno == EPIPE) {
        broken_ = true;
    }
    if (torn || written > 0) {
        torn_ = true;
    }
    leftOut_ += leftOut + 1;
}

void LineSink::Sync() const
{
    fdatasync(fd_);  // fails where there is nothing to wait for, as on a pipe
}

}  // namespace host_platform::slog

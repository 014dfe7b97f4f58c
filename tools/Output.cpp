#include "tools/Output.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <string>

namespace tools {

namespace {

mode_t TypeOf(int fd)
{
    struct stat status = {};
    return fstat(fd, &status) == 0 ? status.st_mode & S_IFMT : 0;
}

bool IsPipeOrTerminal(int fd)
{
    return TypeOf(fd) == S_IFIFO || isatty(fd) == 1;
}

int OpenAnew(int fd)
{
    if (IsPipeOrTerminal(fd)) {
        constexpr int FLAGS = O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
        int own = open(("/proc/self/fd/" + std::to_string(fd)).c_str(), FLAGS);
        if (own < 0 && tcgetsid(fd) >= 0) {
            own = open("/dev/tty", FLAGS);  // the same terminal, which belongs to the user who logged in
        }
        if (own >= 0) {
            return own;
        }
    }
    return fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

}  // namespace

Output::Output(int fd)
    : fd_(OpenAnew(fd), "standard stream"),
      isSocket_(TypeOf(fd_.Get()) == S_IFSOCK),
      mayBlock_(IsPipeOrTerminal(fd_.Get()) && (fcntl(fd_.Get(), F_GETFL) & O_NONBLOCK) == 0)
{
}

bool Output::Write(std::string_view text, int giveUp)
{
    int refusals = 0;  // in a row
    while (!over_ && !text.empty()) {
        if ((mayBlock_ || refusals > 0) && !WaitForRoom(refusals > 1, giveUp)) {
            over_ = true;
            break;
        }
        const ssize_t count = WriteSome(text);
        if (count >= 0) {
            text.remove_prefix(static_cast<size_t>(count));
            refusals = 0;
        } else if (errno == EAGAIN || errno == EINTR) {
            ++refusals;
        } else {
            error_ = errno;
            over_ = true;
        }
    }
    return !over_;
}

// A pipe that says it is writable takes PIPE_BUF bytes without blocking, if nobody else gets in between.
ssize_t Output::WriteSome(std::string_view text) const
{
    if (isSocket_) {
        return send(fd_.Get(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    return write(fd_.Get(), text.data(), mayBlock_ ? std::min<size_t>(text.size(), PIPE_BUF) : text.size());
}

// False once it is time to give up. A terminal that has room, but not for a whole end of line, says that it has room
// and takes nothing: the pause keeps that from becoming a loop without rest.
bool Output::WaitForRoom(bool pauseFirst, int giveUp) const
{
    constexpr int PAUSE = 10;  // milliseconds
    pollfd waited[] = {{giveUp, POLLIN, 0}, {fd_.Get(), POLLOUT, 0}};
    if (pauseFirst) {
        poll(waited, 1, PAUSE);
    }
    while (poll(waited, 2, -1) < 0 && errno == EINTR) {
    }
    return waited[1].revents != 0;
}

}  // namespace tools

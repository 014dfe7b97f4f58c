#include "tools/EventPrinter.h"

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace tools {

EventPrinter::EventPrinter(int fd, TextStyle style, uint64_t limit) : fd_(fd), style_(style), remaining_(limit)
{
}

void EventPrinter::PrintHeader()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    Write(ColumnHeader() + '\n');
}

int EventPrinter::WriteError() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return writeError_;
}

void EventPrinter::Print(const Event& event)
{
    const std::string line = Describe(style_, event) + '\n';
    const std::lock_guard<std::mutex> lock(mutex_);
    if (remaining_ == 0 || writeError_ != 0 || !Write(line)) {
        return;
    }
    if (remaining_ != UNLIMITED && --remaining_ == 0) {
        ended_.Raise();
    }
}

bool EventPrinter::Write(const std::string& line)
{
    // A pipe that is writable takes PIPE_BUF bytes without blocking.
    for (size_t written = 0; written < line.size();) {
        if (!WaitUntilWritable()) {
            return false;
        }
        const size_t piece = std::min<size_t>(line.size() - written, PIPE_BUF);
        const ssize_t count = write(fd_, line.data() + written, piece);
        if (count >= 0) {
            written += static_cast<size_t>(count);
        } else if (errno != EINTR && errno != EAGAIN) {
            writeError_ = errno;
            ended_.Raise();
            return false;
        }
    }
    return true;
}

// False once the printer has been stopped while the output takes nothing.
bool EventPrinter::WaitUntilWritable() const
{
    pollfd waited[] = {{fd_, POLLOUT, 0}, {stopped_.Descriptor(), POLLIN, 0}};
    while (poll(waited, 2, -1) < 0 && errno == EINTR) {
    }
    return waited[0].revents != 0;
}

}  // namespace tools

// A descriptor that log lines go to, and that never makes their writer wait.
#ifndef REPORT_EVENT_PLATFORM_HOST_SLOG_LINE_SINK_H
#define REPORT_EVENT_PLATFORM_HOST_SLOG_LINE_SINK_H

#include <atomic>

#include "platform/host/slog/LogLine.h"

namespace host_platform::slog {

// Opens a file for lines, close-on-exec and non-blocking. Never on a standard descriptor that the process was started
// without: whoever repairs those later would replace the file. Returns -1 with errno on failure.
int OpenDestination(const char* path, int flags);

// Takes one line with one write, if the destination takes it now and whole; else counts it, and the next line that is
// written says how many were left out before it. Any thread and any signal handler may write: no lock, no allocation,
// no SIGPIPE. The descriptor is never closed. After the first broken pipe the sink stays silent for good.
class LineSink {
public:
    // Whose descriptor it is. That of the process may be blocking, with flags that other processes share and that
    // nobody may change, and may be replaced at any moment. That of this library comes from OpenDestination.
    enum class Owner { PROCESS, LIBRARY };

    constexpr LineSink(int fd, Owner owner) : fd_(fd), owner_(owner)
    {
    }

    bool IsOpen() const
    {
        return fd_ >= 0;
    }

    // Finishes the line and writes it. errno is undefined afterwards.
    void Write(LogLine& line);

    // Counts a line that somebody else has left out.
    void LeaveOut()
    {
        ++leftOut_;
    }

    // Waits until the disk has the lines.
    void Sync() const;

private:
    const int fd_;
    const Owner owner_;
    std::atomic<bool> broken_{false};
    std::atomic<bool> torn_{false};  // the last line stands there without its end
    std::atomic<unsigned int> leftOut_{0};
    static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<unsigned int>::is_always_lock_free,
                  "a signal handler writes too");
};

}  // namespace host_platform::slog

#endif  // REPORT_EVENT_PLATFORM_HOST_SLOG_LINE_SINK_H

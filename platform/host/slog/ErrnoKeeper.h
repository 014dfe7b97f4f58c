// Gives errno the value back that it had before: whoever logs still has to look at it.
#ifndef REPORT_EVENT_PLATFORM_HOST_SLOG_ERRNO_KEEPER_H
#define REPORT_EVENT_PLATFORM_HOST_SLOG_ERRNO_KEEPER_H

#include <cerrno>

namespace host_platform::slog {

class ErrnoKeeper {
public:
    ErrnoKeeper() = default;
    ~ErrnoKeeper()
    {
        errno = saved_;
    }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

private:
    const int saved_ = errno;
};

}  // namespace host_platform::slog

#endif  // REPORT_EVENT_PLATFORM_HOST_SLOG_ERRNO_KEEPER_H

// What both processes of a run need of the system: an owned descriptor, errors with their cause, clocks.
#ifndef REPORT_EVENT_BENCHMARKS_SYSTEM_H
#define REPORT_EVENT_BENCHMARKS_SYSTEM_H

#include <sched.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <system_error>
#include <utility>

namespace bench {

[[noreturn]] inline void ThrowErrno(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

// Passes a result of 0 or more through and throws errno otherwise.
template <class Result>
Result Check(Result result, const char* what)
{
    if (result < 0) {
        ThrowErrno(what);
    }
    return result;
}

class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd_(fd)
    {
    }
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1))
    {
    }
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        other.Close();
        return *this;
    }
    ~FileDescriptor()
    {
        Close();
    }

    int Get() const
    {
        return fd_;
    }
    // Hands the descriptor to somebody who closes it.
    int Release()
    {
        return std::exchange(fd_, -1);
    }
    void Close()
    {
        if (fd_ >= 0) {
            close(Release());
        }
    }

private:
    int fd_ = -1;
};

// Nanoseconds of the clock that all processes of the machine share.
inline int64_t NowNs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

// A time together with the processor on which it was taken, in the eight bytes that a record has for it.
constexpr unsigned PLACE_BITS = 12;

inline uint64_t TimeAndPlace(int64_t ns, int processor)
{
    return static_cast<uint64_t>(ns) << PLACE_BITS | static_cast<uint64_t>(processor) % (1 << PLACE_BITS);
}

// Right for up to 26 days.
inline int64_t NsBetween(uint64_t earlier, uint64_t later)
{
    return static_cast<int64_t>(((later >> PLACE_BITS) - (earlier >> PLACE_BITS)) << PLACE_BITS) >> PLACE_BITS;
}

inline bool AtTheSamePlace(uint64_t one, uint64_t other)
{
    return (one ^ other) << (64 - PLACE_BITS) == 0;
}

// User and system time of all threads of this process so far.
inline double CpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) { return double(time.tv_sec) + double(time.tv_usec) * 1e-6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_SYSTEM_H

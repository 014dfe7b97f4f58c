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
class TimeAndPlace {
public:
    TimeAndPlace(int64_t ns, unsigned processor) : packed_(static_cast<uint64_t>(ns) << PLACE_BITS | processor % PLACES)
    {
    }
    explicit TimeAndPlace(int64_t packed) : packed_(static_cast<uint64_t>(packed))
    {
    }
    static TimeAndPlace Now()
    {
        return {NowNs(), static_cast<unsigned>(sched_getcpu())};
    }
    int64_t Packed() const
    {
        return static_cast<int64_t>(packed_);
    }
    // Right for differences of up to 26 days.
    int64_t NsSince(TimeAndPlace earlier) const
    {
        return static_cast<int64_t>((packed_ & ~(PLACES - 1)) - (earlier.packed_ & ~(PLACES - 1))) / int64_t{PLACES};
    }
    bool AtPlaceOf(TimeAndPlace other) const
    {
        return (packed_ ^ other.packed_) % PLACES == 0;
    }

private:
    static constexpr unsigned PLACE_BITS = 12;
    static constexpr uint64_t PLACES = uint64_t{1} << PLACE_BITS;

    uint64_t packed_;
};

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

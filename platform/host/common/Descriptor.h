// Owners of what the kernel hands out: a descriptor, a mapping.
#ifndef REPORT_EVENT_PLATFORM_HOST_COMMON_DESCRIPTOR_H
#define REPORT_EVENT_PLATFORM_HOST_COMMON_DESCRIPTOR_H

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <memory>
#include <utility>

namespace host_platform {

// Closes its descriptor when it goes, and leaves errno alone. A thread is not cancelled in it: that would leave by way
// of a destructor, and end the process.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd)
    {
    }
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release())
    {
    }
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        Reset(other.Release());
        return *this;
    }
    ~UniqueFd()
    {
        Reset();
    }

    int Get() const
    {
        return fd_;
    }
    explicit operator bool() const
    {
        return fd_ >= 0;
    }
    int Release()
    {
        return std::exchange(fd_, -1);
    }
    void Reset(int fd = -1)
    {
        const int old = std::exchange(fd_, fd);
        if (old >= 0) {
            const int saved = errno;
            int cancellation = 0;
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancellation);
            close(old);
            pthread_setcancelstate(cancellation, nullptr);
            errno = saved;
        }
    }

private:
    int fd_ = -1;
};

// Takes over a descriptor that was just made and returns it under a number above those of the standard streams: in a
// process that has closed these, a socket would otherwise become the place where the process writes its messages.
// Empty, with the cause in errno, when `made` is negative or no such number is free.
inline UniqueFd AboveStandard(int made)
{
    UniqueFd fd(made);
    return made < 0 || made > STDERR_FILENO ? std::move(fd) : UniqueFd(fcntl(made, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

struct Unmap {
    size_t size = 0;

    void operator()(unsigned char* memory) const
    {
        munmap(memory, size);
    }
};
// Unmaps its memory when it goes.
using Mapping = std::unique_ptr<unsigned char[], Unmap>;

}  // namespace host_platform

#endif  // REPORT_EVENT_PLATFORM_HOST_COMMON_DESCRIPTOR_H

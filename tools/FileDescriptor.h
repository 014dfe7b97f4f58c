// The owner of one descriptor.
#ifndef REPORT_EVENT_TOOLS_FILE_DESCRIPTOR_H
#define REPORT_EVENT_TOOLS_FILE_DESCRIPTOR_H

#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace tools {

// Closes it.
class FileDescriptor {
public:
    // Takes ownership of `fd`. Throws std::system_error with errno and `what` when it is negative.
    FileDescriptor(int fd, const char* what) : fd_(fd)
    {
        if (fd_ < 0) {
            throw std::system_error(errno, std::generic_category(), what);
        }
    }
    ~FileDescriptor()
    {
        close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int Get() const
    {
        return fd_;
    }

private:
    int fd_;
};

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_FILE_DESCRIPTOR_H

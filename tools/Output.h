// An owned descriptor, and text to one without ever being stuck in it: a terminal may have been stopped by Ctrl-S, and
// a pipe may be full, for as long as they like.
#ifndef REPORT_EVENT_TOOLS_OUTPUT_H
#define REPORT_EVENT_TOOLS_OUTPUT_H

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <system_error>

namespace tools {

// Owns one descriptor and closes it.
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
    FileDescriptor(FileDescriptor&&) = delete;

    int Get() const
    {
        return fd_;
    }

private:
    int fd_;
};

// Used by one thread at a time. Pipes and terminals are written to through an open file description of its own, because
// not to block is a flag of the description, and the one that the program was given belongs to others, too.
class Output {
public:
    // Writes to what `fd` stands for. Throws std::system_error when `fd` is not open.
    explicit Output(int fd);

    // Returns once the system has taken all of the text; waits for that until `giveUp` is readable (-1: for as long as
    // it takes). False when it gave up or the write failed: nothing is written any more from then on.
    bool Write(std::string_view text, int giveUp);
    // The errno of the write that failed, 0 when none has. A closed pipe is EPIPE.
    int Error() const
    {
        return error_;
    }

private:
    ssize_t WriteSome(std::string_view text) const;
    bool WaitForRoom(bool pauseFirst, int giveUp) const;

    const FileDescriptor fd_;
    const bool isSocket_;
    const bool mayBlock_;  // no description of its own could be had
    bool over_ = false;
    int error_ = 0;
};

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_OUTPUT_H

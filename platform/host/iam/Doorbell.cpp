#include "platform/host/iam/Doorbell.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace host_platform::iam {

Status Doorbell::Create()
{
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        return {errno, "a pipe cannot be made"};
    }
    readEnd_ = AboveStandard(ends[0]);
    writeEnd_ = AboveStandard(ends[1]);
    if (!readEnd_ || !writeEnd_) {
        return {errno, "a pipe cannot be made"};
    }
    return {};
}

void Doorbell::Ring() const
{
    const char byte = 0;
    while (write(writeEnd_.Get(), &byte, 1) < 0 && errno == EINTR) {
    }
}

Status DoorbellListener::Adopt(int received)
{
    struct stat status = {};
    if (fstat(received, &status) != 0 || !S_ISFIFO(status.st_mode)) {
        return {EPROTO, "the bell is not a pipe"};
    }
    char path[32];
    snprintf(path, sizeof path, "/proc/self/fd/%d", received);
    fd_ = AboveStandard(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd_) {
        return {errno, "the bell cannot be opened"};
    }
    return {};
}

void DoorbellListener::Drain() const
{
    char bytes[64];
    while (read(fd_.Get(), bytes, sizeof bytes) < 0 && errno == EINTR) {
    }
}

}  // namespace host_platform::iam

// Wakes a sleeping reader: a pipe, written by the service, watched by the reader.
//
// A pipe and not an event counter, because nothing that the peer does to its end can make a write to it block; and not
// the socket, because a pipe wakes faster.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_DOORBELL_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_DOORBELL_H

#include "platform/host/common/Descriptor.h"
#include "platform/host/common/Status.h"

namespace host_platform::iam {

// The service's side. It keeps a read end of its own, so that ringing for a dead reader never raises SIGPIPE.
class Doorbell {
public:
    Status Create();

    // Never blocks. A full pipe is as good as another byte: the reader will find it readable.
    void Ring() const;

    int ReaderEnd() const
    {
        return readEnd_.Get();
    }

private:
    UniqueFd readEnd_;
    UniqueFd writeEnd_;
};

// The reader's side.
class DoorbellListener {
public:
    // Opens the pipe that `received` refers to once more, so that the flags of what is read from are this process's
    // own and Drain cannot be made to block.
    Status Adopt(int received);

    void Drain() const;

    int Fd() const
    {
        return fd_.Get();
    }

private:
    UniqueFd fd_;
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_DOORBELL_H

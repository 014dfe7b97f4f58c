// The place of a resource in the file system: the socket that it is served on.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_ENDPOINT_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_ENDPOINT_H

#include <sys/types.h>

#include "platform/host/common/Descriptor.h"
#include "platform/host/common/Status.h"
#include "platform/host/iam/RuntimeDirectory.h"

namespace host_platform::iam {

// Who listens serves: a socket that stands in the place is asked, and replaced only when nobody answers. The runtime
// directory is locked meanwhile, so that of two who start at once one finds the other. At its end the socket's file is
// removed, if it is still the one made here; a process that dies leaves it behind for whoever comes next.
class Endpoint {
public:
    Endpoint() = default;
    ~Endpoint();
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;

    // EBUSY when another live process serves the resource, EEXIST when what stands in the place is no such socket.
    Status Create(const char* resource);

    int Listener() const
    {
        return listener_.Get();
    }
    const char* SocketPath() const
    {
        return socketPath_.text;
    }

    // Lets this inotify descriptor tell when something happens to the socket's file or its directory, as far as it can.
    void Watch(int notice) const;
    // Whether the socket is no longer where it was put, so that nobody finds the service any more.
    bool IsGone() const;

private:
    Status ClearPlace() const;
    Status Listen();

    Path socketPath_{};
    UniqueFd listener_;
    dev_t device_ = 0;  // of the socket's file
    ino_t inode_ = 0;
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_ENDPOINT_H

// The place of a resource in the file system: the lock file that decides who serves it and the socket it is served on.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_ENDPOINT_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_ENDPOINT_H

#include <sys/types.h>

#include "platform/host/common/Descriptor.h"
#include "platform/host/common/Status.h"
#include "platform/host/iam/RuntimeDirectory.h"

namespace host_platform::iam {

// Holds the lock from Create to its end, and removes both files then, each if it is still its own. A process that dies
// leaves the files behind; the lock goes with the process (and its children that have not called exec), and whoever
// comes next replaces the socket. Because somebody may have removed the lock file under a live service, a socket is
// asked before it is replaced.
class Endpoint {
public:
    Endpoint() = default;
    ~Endpoint();
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;

    // EBUSY when another live process serves the resource, EEXIST when what stands in the socket's place is none.
    Status Create(const char* resource);

    int Listener() const
    {
        return listener_.Get();
    }

    const char* SocketPath() const
    {
        return socketPath_.text;
    }

    // Lets this inotify descriptor tell when something happens to the files or their directory, as far as it can.
    void Watch(int notice) const;
    // Whether a file is no longer where it was put, so that nobody finds the service any more.
    bool IsGone() const;

private:
    Status TakeLock();
    bool LockFileIsOurs() const;
    bool SocketIsOurs() const;
    Status ClearPlace() const;
    Status Listen();

    Path socketPath_{};
    char lockPath_[sizeof(Path) + sizeof ".lock"] = {};
    UniqueFd lock_;
    UniqueFd listener_;
    dev_t device_ = 0;  // of the socket's file
    ino_t inode_ = 0;
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_ENDPOINT_H

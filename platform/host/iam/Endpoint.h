// The place of a resource in the file system: the lock file that decides who serves it and the socket it is served on.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_ENDPOINT_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_ENDPOINT_H

#include "platform/host/common/Descriptor.h"
#include "platform/host/common/Status.h"
#include "platform/host/iam/RuntimeDirectory.h"

namespace host_platform::iam {

// Holds the lock from Create to its end, and removes both files then. A process that dies leaves the files behind; the
// lock goes with the process (and its children that have not called exec), and whoever comes next replaces the socket.
class Endpoint {
public:
    Endpoint() = default;
    ~Endpoint();
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;

    // EBUSY when another live process serves the resource.
    Status Create(const char* resource);

    int Listener() const
    {
        return listener_.Get();
    }

private:
    Status TakeLock();
    bool LockFileIsOurs() const;
    Status Listen();

    Path socketPath_{};
    char lockPath_[sizeof(Path) + sizeof ".lock"] = {};
    UniqueFd lock_;
    UniqueFd listener_;
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_ENDPOINT_H

// The private directory where the sockets of all resources of one user lie, and the names in it.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_RUNTIME_DIRECTORY_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_RUNTIME_DIRECTORY_H

#include <sys/un.h>

#include "platform/host/common/Descriptor.h"
#include "platform/host/common/Status.h"

namespace host_platform::iam {

// The path of a socket, or of the directory that holds it.
struct Path {
    char text[sizeof(sockaddr_un::sun_path)];
};

// Whether `name` has the form <text>:/res/... where <text> has no '/' and no ':' and may be empty.
bool IsResourceName(const char* name);

// IAM_RUNTIME_DIR, else XDG_RUNTIME_DIR/iam, else /tmp/iam-<uid>, whatever stands there. ENAMETOOLONG when no socket
// could have a name in it: then `directory` is its beginning.
Status NameRuntimeDirectory(Path& directory);

enum class Missing { MAKE, REFUSE };

// The same, and opens it. Fails unless it is a directory (not a link to one) that belongs to this process's user and
// that nobody else can enter; with ENOENT when it is missing and not to be made.
Status OpenRuntimeDirectory(Missing missing, Path& path, UniqueFd& directory);

// Makes the path of the runtime directory that of a resource's socket in it: the resource's name with everything but
// letters, digits, '-' and '_' percent-encoded. ENAMETOOLONG when a socket cannot have that name.
Status AppendName(const char* resource, Path& path);

// The socket address of this path.
sockaddr_un AddressOf(const Path& path);

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_RUNTIME_DIRECTORY_H

// The private directory where the sockets of all resources of one user lie.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_RUNTIME_DIRECTORY_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_RUNTIME_DIRECTORY_H

#include <string>

#include "platform/host/iam/Status.h"

namespace host_platform::iam {

// Whether `name` has the form <text>:/res/... where <text> has no '/' and no ':' and may be empty.
bool IsResourceName(const char* name);

// The name of a resource as one component of a path: everything but letters, digits, '-' and '_' percent-encoded.
std::string EncodeName(const std::string& name);

// IAM_RUNTIME_DIR, else XDG_RUNTIME_DIR/iam, else /tmp/iam-<uid>. Fails unless it is a directory (not a link to one)
// that belongs to this process's user and that nobody else can enter. ENOENT when it is missing, unless `make`: then it
// is made.
Status FindRuntimeDirectory(bool make, std::string& directory);

// Where the socket of a resource lies, below the runtime directory. ENAMETOOLONG when a socket cannot have that name.
Status FindSocketPath(bool makeDirectory, const std::string& resource, std::string& path);

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_RUNTIME_DIRECTORY_H

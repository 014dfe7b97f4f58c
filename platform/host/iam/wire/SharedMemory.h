// Sealed shared memory: made by the service, checked by the reader before it maps it.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_SHARED_MEMORY_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_SHARED_MEMORY_H

#include <cstdint>

#include "platform/host/common/Descriptor.h"
#include "platform/host/common/Status.h"

namespace host_platform::iam {

enum class Sharing {
    READ_WRITE,  // both sides write: the ring
    READ_ONLY,   // only the mapping made here can ever be written: the pool
};

// Makes `bytes` of zeroed memory, every page of it there, maps it writable and then seals it: no one can change its
// size any more or undo a seal, nor (READ_ONLY) write to it in any other way.
Status CreateSharedMemory(const char* name, uint64_t bytes, Sharing sharing, UniqueFd& fd, Mapping& mapping);

// Maps what a peer sent. EPROTO unless it is sealed as CreateSharedMemory seals it and has exactly the announced size:
// an access inside the mapping can then never fail.
Status MapSharedMemory(int fd, uint64_t bytes, Sharing sharing, Mapping& mapping);

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_SHARED_MEMORY_H

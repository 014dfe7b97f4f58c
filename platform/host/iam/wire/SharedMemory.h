// Sealed shared memory: made by the service, checked by the reader before it maps it.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_SHARED_MEMORY_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_SHARED_MEMORY_H

#include <cstdint>

#include "platform/host/common/Descriptor.h"
#include "platform/host/common/Status.h"

namespace host_platform::iam {

// The one side that writes to it; the other maps it for reading.
enum class Writer {
    SERVICE,  // sealed: only the mapping made here can ever be written
    READER,
};

// Makes `bytes` of zeroed memory, every page of it there, maps it and seals it: no one can change its size any more or
// undo a seal.
Status CreateSharedMemory(const char* name, uint64_t bytes, Writer writer, UniqueFd& fd, Mapping& mapping);

// The reader's side: maps what the service sent. EPROTO unless it is sealed as CreateSharedMemory seals it and has
// exactly the announced size: an access inside the mapping can then never fail.
Status MapSharedMemory(const UniqueFd& fd, uint64_t bytes, Writer writer, Mapping& mapping);

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_SHARED_MEMORY_H

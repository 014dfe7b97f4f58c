#include "platform/host/iam/wire/SharedMemory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>

namespace host_platform::iam {
namespace {

int Seals(Sharing sharing)
{
    constexpr int SIZE_SEALS = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
    return sharing == Sharing::READ_ONLY ? SIZE_SEALS | F_SEAL_FUTURE_WRITE : SIZE_SEALS;
}

Status Map(int fd, uint64_t bytes, int protection, Mapping& mapping)
{
    void* const address = mmap(nullptr, bytes, protection, MAP_SHARED, fd, 0);
    if (address == MAP_FAILED) {
        return {errno, "shared memory cannot be mapped"};
    }
    mapping = Mapping(address, bytes);
    return {};
}

}  // namespace

Status CreateSharedMemory(const char* name, uint64_t bytes, Sharing sharing, UniqueFd& fd, Mapping& mapping)
{
    fd = AboveStandard(memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!fd) {
        return {errno, "shared memory cannot be made"};
    }
    // With all pages there from the start, memory that runs out is an error here and not a SIGBUS later.
    int error = 0;
    do {
        error = posix_fallocate(fd.Get(), 0, static_cast<off_t>(bytes));
    } while (error == EINTR);
    if (error != 0) {
        return {error, "shared memory cannot be had"};
    }
    const Status mapped = Map(fd.Get(), bytes, PROT_READ | PROT_WRITE, mapping);
    if (mapped.Failed()) {
        return mapped;
    }
    if (fcntl(fd.Get(), F_ADD_SEALS, Seals(sharing)) != 0) {
        return {errno, "shared memory cannot be sealed"};
    }
    return {};
}

Status MapSharedMemory(int fd, uint64_t bytes, Sharing sharing, Mapping& mapping)
{
    const int seals = fcntl(fd, F_GET_SEALS);
    if (seals < 0 || (seals & Seals(sharing)) != Seals(sharing)) {
        return {EPROTO, "shared memory is not sealed"};
    }
    struct stat status = {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || static_cast<uint64_t>(status.st_size) != bytes) {
        return {EPROTO, "shared memory has another size than announced"};
    }
    return Map(fd, bytes, sharing == Sharing::READ_ONLY ? PROT_READ : PROT_READ | PROT_WRITE, mapping);
}

}  // namespace host_platform::iam

#include "platform/host/iam/wire/SharedMemory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>

namespace host_platform::iam {
namespace {

int Seals(Writer writer)
{
    constexpr int SIZE_SEALS = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
    return writer == Writer::SERVICE ? SIZE_SEALS | F_SEAL_FUTURE_WRITE : SIZE_SEALS;
}

// With its page tables filled, so that no record pays for the first touch of a page.
Status Map(const UniqueFd& fd, uint64_t bytes, bool writes, Mapping& mapping)
{
    const int protection = writes ? PROT_READ | PROT_WRITE : PROT_READ;
    void* const address = mmap(nullptr, bytes, protection, MAP_SHARED | MAP_POPULATE, fd.Get(), 0);
    if (address == MAP_FAILED) {
        return {errno, "shared memory cannot be mapped"};
    }
    mapping = Mapping(static_cast<unsigned char*>(address), Unmap{bytes});
    return {};
}

}  // namespace

Status CreateSharedMemory(const char* name, uint64_t bytes, Writer writer, UniqueFd& fd, Mapping& mapping)
{
    fd = AboveStandard(memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!fd) {
        return {errno, "shared memory cannot be made"};
    }
    // The limit holds for memory too, and the signal that comes with it would end the process.
    rlimit size{};
    if (getrlimit(RLIMIT_FSIZE, &size) == 0 && size.rlim_cur < bytes) {
        return {EFBIG, "shared memory would be larger than the limit of file sizes (ulimit -f)"};
    }
    // With all pages there from the start, memory that runs out is an error here and not a SIGBUS later.
    int error = 0;
    do {
        error = posix_fallocate(fd.Get(), 0, static_cast<off_t>(bytes));
    } while (error == EINTR);
    if (error != 0) {
        return {error, "shared memory cannot be had"};
    }
    return Map(fd, bytes, writer == Writer::SERVICE, mapping).Then([&] {
        return Check(fcntl(fd.Get(), F_ADD_SEALS, Seals(writer)) == 0, "shared memory cannot be sealed");
    });
}

Status MapSharedMemory(const UniqueFd& fd, uint64_t bytes, Writer writer, Mapping& mapping)
{
    const int seals = fcntl(fd.Get(), F_GET_SEALS);
    if (seals < 0 || (seals & Seals(writer)) != Seals(writer)) {
        return {EPROTO, "shared memory is not sealed"};
    }
    struct stat status = {};
    if (fstat(fd.Get(), &status) != 0 || !S_ISREG(status.st_mode) || static_cast<uint64_t>(status.st_size) != bytes) {
        return {EPROTO, "shared memory has another size than announced"};
    }
    return Map(fd, bytes, writer == Writer::READER, mapping);
}

}  // namespace host_platform::iam

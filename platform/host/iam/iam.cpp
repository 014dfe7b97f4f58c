// The C interface: checks what it is given, finds the object meant, and turns failures into result codes. No exception
// passes out of it.
#pragma GCC visibility push(default)
#include "iam.h"
#include "platform/host/iam/HostService.h"

extern "C" {
// What `open` and `close` of a program become that is linked with --wrap=open and --wrap=close.
int __wrap_open(const char* name, int flags, ...);
int __wrap_close(int fd);
}
#pragma GCC visibility pop

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/host/iam/Log.h"
#include "platform/host/iam/RuntimeDirectory.h"
#include "platform/host/iam/file/Listing.h"
#include "platform/host/iam/file/OpenFiles.h"
#include "platform/host/iam/service/Handles.h"
#include "platform/host/iam/service/Service.h"

namespace host_platform::iam {
namespace {

std::atomic<bool> observing{false};

int Report(const char* action, const char* name, const Status& status)
{
    if (!status.Failed()) {
        return 0;
    }
    // With the directory, because peers that do not find each other mostly look in different ones.
    Path directory{};
    static_cast<void>(NameRuntimeDirectory(directory));  // the beginning of one that is too long
    IAM_LOG("%s %s in %s failed: %s (%s)", action, name, directory.text, status.cause, strerrordesc_np(status.error));
    return -status.error;
}

Status RegisterPool(const IAMShmPoolConfig& config, IAMShmPoolHandle& handle)
{
    const auto shape = ShapePool(config.size, config.blockCount);
    if (!shape) {
        return {EINVAL, "a pool has 1 to 1024 blocks of at least 64 bytes and at most 1 GiB"};
    }
    uint64_t generation = 0;
    return Service::Instance().RegisterPool(config.fileName, *shape, generation).Then([&] {
        FillPoolHandle(generation, handle);
        return Status{};
    });
}
static_assert(POOL_BLOCKS_MAX == 1024 && BLOCK_ALIGNMENT == 64 && POOL_BYTES_MAX == 1 << 30, "as the cause above says");

Status OpenResource(const char* name, int flags, int& fd)
{
    if ((flags & O_ACCMODE) == O_WRONLY) {
        return {EACCES, "a resource file is read"};
    }
    const char* const environment = secure_getenv("IAM_OBSERVE");
    const bool observes = observing || (environment != nullptr && strcmp(environment, "1") == 0);
    return OpenFiles::Instance().Open(name, observes ? Role::OBSERVER : Role::READER, fd);
}

}  // namespace
}  // namespace host_platform::iam

using namespace host_platform;
using namespace host_platform::iam;

// ---------------------------------------------------------------------------------------------------------------------
// Publishing side

int IAMRegisterRTService(IAMRTServiceRecord* record)
{
    if (record == nullptr || record->serviceName == nullptr || record->operations == nullptr) {
        return -EINVAL;
    }
    return Report("registering", record->serviceName,
                  Service::Instance().Serve(record->serviceName, *record->operations));
}

int IAMShmRegisterPoolWithConfig(IAMShmPoolConfig* config, IAMShmPoolHandle* pool)
{
    if (config == nullptr || config->fileName == nullptr || pool == nullptr) {
        return -EINVAL;
    }
    return Report("registering the pool of", config->fileName, RegisterPool(*config, *pool));
}

int IAMShmHandleMalloc(IAMShmPoolHandle* pool, uint32_t size, IAMShmBlockHandle* block)
{
    if (pool == nullptr || block == nullptr) {
        return -EINVAL;
    }
    return Service::Instance().Allocate(PoolGenerationOf(*pool), size, block->opaque);
}

int IAMShmWrite(IAMShmBlockHandle* block, const char* data, uint32_t size, uint32_t offset)
{
    if (block == nullptr || (data == nullptr && size != 0)) {
        return -EINVAL;
    }
    return Service::Instance().Write(block->opaque, data, size, offset);
}

int IAMRTDataEnqueue(uint64_t dataHandle, IAMDataPackage* package)
{
    if (package == nullptr || package->pool == nullptr || package->block == nullptr || package->count != 1) {
        return -EINVAL;
    }
    return Service::Instance().Enqueue(dataHandle, PoolGenerationOf(*package->pool), package->block->opaque);
}

int IAMShmFree(IAMShmPoolHandle* pool, IAMShmBlockHandle* block)
{
    if (pool == nullptr || block == nullptr) {
        return -EINVAL;
    }
    return Service::Instance().Free(PoolGenerationOf(*pool), block->opaque);
}

int IAMShmDestroyPool(IAMShmPoolHandle* pool)
{
    if (pool == nullptr) {
        return -EINVAL;
    }
    return Service::Instance().End(PoolGenerationOf(*pool));
}

int IAMHostReaderCount(const char* resource)
{
    return resource != nullptr ? Service::Instance().ReaderCount(resource) : -1;
}

// ---------------------------------------------------------------------------------------------------------------------
// Subscribing side

int64_t IAMFastRead(int fd, void* buffer, size_t length)
{
    const int64_t result = buffer != nullptr || length == 0 ? OpenFiles::Instance().Read(fd, buffer, length) : -EFAULT;
    if (result < 0) {
        errno = static_cast<int>(-result);
        return -1;
    }
    return result;
}

int __wrap_open(const char* name, int flags, ...)
{
    if (name == nullptr) {
        errno = EFAULT;
        return -1;
    }
    if (!IsResourceName(name)) {
        mode_t mode = 0;
        if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
            va_list arguments;
            va_start(arguments, flags);
            mode = va_arg(arguments, mode_t);
            va_end(arguments);
        }
        return open(name, flags, mode);
    }
    int fd = -1;
    const Status status = OpenResource(name, flags, fd);
    if (!status.Failed()) {
        return fd;
    }
    // Nobody there is everyday news, told by the result alone.
    if (status.error != ENOENT && status.error != ECONNREFUSED) {
        Report("opening", name, status);
    }
    errno = status.error;
    return -1;
}

int __wrap_close(int fd)
{
    return OpenFiles::Instance().Close(fd) ? 0 : close(fd);
}

void IAMHostObserve(int on)
{
    observing = on != 0;
}

uint64_t IAMHostLostRecords(const char* resource)
{
    return resource != nullptr ? OpenFiles::Instance().LostRecords(resource) : 0;
}

int IAMHostLostPlace(const char* resource)
{
    return resource != nullptr && OpenFiles::Instance().HasLostPlace(resource) ? 1 : 0;
}

const char* IAMHostResourceOfThisThread(void)
{
    return OpenFiles::ResourceOfThisThread();
}

// ---------------------------------------------------------------------------------------------------------------------
// Both sides

int IAMHostRuntimeDirectory(char* buffer, size_t size)
{
    if (buffer == nullptr) {
        return -EINVAL;
    }
    Path directory{};
    const Status named = NameRuntimeDirectory(directory);
    if (named.Failed()) {
        return -named.error;
    }
    const int length = snprintf(buffer, size, "%s", directory.text);
    return static_cast<size_t>(length) < size ? 0 : -ERANGE;
}

int IAMHostList(IAMHostVisitor visit, void* context)
{
    return visit != nullptr ? Report("listing", "all", ListResources(visit, context)) : -EINVAL;
}

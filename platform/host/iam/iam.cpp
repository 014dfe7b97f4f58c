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

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <system_error>

#include "platform/host/iam/Endpoint.h"
#include "platform/host/iam/Log.h"
#include "platform/host/iam/ReaderConnection.h"
#include "platform/host/iam/ReaderTable.h"
#include "platform/host/iam/RuntimeDirectory.h"
#include "platform/host/iam/service/Handles.h"
#include "platform/host/iam/service/Service.h"
#include "platform/host/iam/service/ServiceThread.h"

namespace host_platform::iam {
namespace {

// Runs a step that may allocate or start a thread.
template <typename Step>
Status Guarded(Step step)
{
    try {
        return step();
    } catch (const std::system_error& error) {
        return {error.code().value() != 0 ? error.code().value() : EAGAIN, "no thread can be started"};
    } catch (const std::exception&) {
        return {ENOMEM, "out of memory"};
    }
}

int Report(const char* action, const char* name, const Status& status)
{
    if (!status.Failed()) {
        return 0;
    }
    // With the directory, because peers that do not find each other mostly look in different ones.
    Path directory{};
    static_cast<void>(NameRuntimeDirectory(directory));  // the beginning of one that is too long
    Log("%s %s in %s failed: %s (%s)", action, name, directory.text, status.cause, strerrordesc_np(status.error));
    return -status.error;
}

// A service whose pool is destroyed ends with it. One that never got a pool is not destroyed by anyone, and its
// notifications must not find their receiver half torn down. This handler runs before the destructors of everything
// that was complete when the first service was registered.
void EndServicesWithoutPool()
{
    ServiceThread& thread = ServiceThread::Instance();
    if (!thread.IsInThisProcess()) {
        return;
    }
    for (size_t number = 0; number < SERVICE_LIMIT; ++number) {
        Service* const service = ServiceDirectory::Instance().At(number);
        if (service != nullptr && service->BeginEndWithoutPool(thread.IsCurrentThread())) {
            thread.End(*service);
        }
    }
}

Status StartServing(Service& service, size_t number)
{
    auto endpoint = std::make_unique<Endpoint>();
    const Status created = endpoint->Create(service.Name().c_str());
    if (created.Failed()) {
        return created;
    }
    ServiceThread& thread = ServiceThread::Instance();
    const Status started = thread.Start();
    if (started.Failed()) {
        return started;
    }
    static const int atExit = std::atexit(EndServicesWithoutPool);
    if (atExit != 0) {
        return {ENOMEM, "no exit handler can be registered"};
    }
    const Status watched = thread.Watch(number, endpoint->Listener());
    if (!watched.Failed()) {
        service.FinishStart(std::move(endpoint));
    }
    return watched;
}

Status RegisterService(const std::string& name, const IAMFileOperations& operations)
{
    if (!IsResourceName(name.c_str())) {
        return {EINVAL, "a resource name has the form <text>:/res/..."};
    }
    size_t number = 0;
    Service* const service = ServiceDirectory::Instance().FindOrAdd(name, number);
    if (service == nullptr) {
        return {EMFILE, "this process serves too many names"};
    }
    switch (service->BeginServing(operations)) {
        case Service::Begin::REPLACED:
            return {};
        case Service::Begin::BUSY:
            return {EBUSY, "another thread is starting or ending it"};
        case Service::Begin::STARTED:
            break;
    }
    const Status status = Guarded([&] { return StartServing(*service, number); });
    if (status.Failed()) {
        service->FinishStart(nullptr);
    }
    return status;
}

Status RegisterPool(const IAMShmPoolConfig& config, IAMShmPoolHandle& handle)
{
    const auto shape = ShapePool(config.size, config.blockCount);
    if (!shape) {
        return {EINVAL, "a pool has 1 to 1024 blocks of at least 64 bytes and at most 1 GiB"};
    }
    size_t number = 0;
    Service* const service = ServiceDirectory::Instance().Find(config.fileName, number);
    if (service == nullptr) {
        return {ENOENT, "its service is not registered"};
    }
    uint64_t generation = 0;
    const Status status = service->RegisterPool(*shape, generation);
    if (!status.Failed()) {
        FillPoolHandle(number, generation, handle);
    }
    return status;
}

static_assert(POOL_BLOCKS_MAX == 1024 && BLOCK_ALIGNMENT == 64 && POOL_BYTES_MAX == 1 << 30, "as the cause above says");

Status OpenResource(const char* name, int flags, int& fd)
{
    if ((flags & O_ACCMODE) == O_WRONLY) {
        return {EACCES, "a resource file is read"};
    }
    const auto connection = std::make_shared<ReaderConnection>();
    const Status connected = connection->Connect(name);
    return connected.Failed() ? connected : ReaderTable::Instance().Add(connection, fd);
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
                  Guarded([&] { return RegisterService(record->serviceName, *record->operations); }));
}

int IAMShmRegisterPoolWithConfig(IAMShmPoolConfig* config, IAMShmPoolHandle* pool)
{
    if (config == nullptr || config->fileName == nullptr || pool == nullptr) {
        return -EINVAL;
    }
    return Report("registering the pool of", config->fileName, Guarded([&] { return RegisterPool(*config, *pool); }));
}

int IAMShmHandleMalloc(IAMShmPoolHandle* pool, uint32_t size, IAMShmBlockHandle* block)
{
    if (pool == nullptr || block == nullptr) {
        return -EINVAL;
    }
    const PoolName name = PoolOf(*pool);
    Service* const service = ServiceOf(name);
    if (service == nullptr) {
        return -EBADF;
    }
    BlockKey key{};
    const int result = service->Allocate(name.generation, size, key);
    if (result == 0) {
        block->opaque = BlockHandle(name.serviceNumber, key);
    }
    return result;
}

int IAMShmWrite(IAMShmBlockHandle* block, const char* data, uint32_t size, uint32_t offset)
{
    if (block == nullptr || (data == nullptr && size != 0)) {
        return -EINVAL;
    }
    Service* const service = ServiceOf(block->opaque);
    return service != nullptr ? service->Write(BlockOf(block->opaque), data, size, offset) : -EBADF;
}

int IAMRTDataEnqueue(uint64_t dataHandle, IAMDataPackage* package)
{
    if (package == nullptr || package->pool == nullptr || package->block == nullptr || package->count != 1) {
        return -EINVAL;
    }
    // Reader, pool and block must be of one service.
    const PoolName name = PoolOf(*package->pool);
    Service* const service = ServiceOf(name);
    if (service == nullptr || ServiceOf(package->block->opaque) != service) {
        return -EBADF;
    }
    if (ServiceOf(dataHandle) != service) {
        return -ENOTCONN;
    }
    return service->Enqueue(ReaderOf(dataHandle), name.generation, BlockOf(package->block->opaque));
}

int IAMShmFree(IAMShmPoolHandle* pool, IAMShmBlockHandle* block)
{
    if (pool == nullptr || block == nullptr) {
        return -EINVAL;
    }
    const PoolName name = PoolOf(*pool);
    Service* const service = ServiceOf(name);
    if (service == nullptr || ServiceOf(block->opaque) != service) {
        return -EBADF;
    }
    return service->Free(name.generation, BlockOf(block->opaque));
}

int IAMShmDestroyPool(IAMShmPoolHandle* pool)
{
    if (pool == nullptr) {
        return -EINVAL;
    }
    const PoolName name = PoolOf(*pool);
    Service* const service = ServiceOf(name);
    ServiceThread& thread = ServiceThread::Instance();
    if (service == nullptr || !thread.IsInThisProcess()) {
        return -EBADF;
    }
    if (!service->BeginEndOfPool(name.generation, thread.IsCurrentThread())) {
        return -EBADF;
    }
    return Report("destroying the pool of", service->Name().c_str(), Guarded([&] {
                      thread.End(*service);
                      return Status{};
                  }));
}

int IAMHostReaderCount(const char* resource)
{
    size_t number = 0;
    const Service* const service = resource != nullptr ? ServiceDirectory::Instance().Find(resource, number) : nullptr;
    return service != nullptr ? service->ReaderCount() : -1;
}

// ---------------------------------------------------------------------------------------------------------------------
// Subscribing side

int64_t IAMFastRead(int fd, void* buffer, size_t length)
{
    const int64_t result =
        buffer != nullptr || length == 0 ? ReaderTable::Instance().Read(fd, buffer, length) : -EFAULT;
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
    const Status status = Guarded([&] { return OpenResource(name, flags, fd); });
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
    return ReaderTable::Instance().Close(fd) ? 0 : close(fd);
}

// Platforms that each break one promise, by a wrapper that is loaded in front of a platform which keeps them all.
// BREACH_<name> chooses it.
#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

#include "fte.h"
#include "iam.h"
#include "slog.h"

namespace {

// The function of this name behind the wrapper.
template <typename Function>
Function* Real(Function* /*wrapper*/, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

#define REAL(function) Real(&function, #function)

}  // namespace

extern "C" {

#if defined(BREACH_INTERRUPTED_READ)

int64_t IAMFastRead(int /*fd*/, void* /*buffer*/, size_t /*length*/)
{
    errno = EINTR;
    return -1;
}

#elif defined(BREACH_END_AS_EMPTY_RECORD)

int64_t IAMFastRead(int fd, void* buffer, size_t length)
{
    const int64_t size = REAL(IAMFastRead)(fd, buffer, length);
    return size < 0 && errno == EPIPE ? 0 : size;
}

#elif defined(BREACH_CLOSE_WAKES_NOBODY)

int __wrap_close(int /*fd*/)
{
    return 0;
}

#elif defined(BREACH_NOTIFICATION_UNDER_LOCK)

static std::mutex lockOfIam;
static IAMFileNotification realOpen;

int IAMRegisterRTService(IAMRTServiceRecord* record)
{
    IAMFileOperations operations = *record->operations;
    realOpen = operations.open;
    operations.open = [](IAMRTFSMgrFile* file) {
        const std::lock_guard<std::mutex> lock(lockOfIam);
        return realOpen(file);
    };
    IAMRTServiceRecord wrapped = *record;
    wrapped.operations = &operations;
    return REAL(IAMRegisterRTService)(&wrapped);
}

int IAMShmHandleMalloc(IAMShmPoolHandle* pool, uint32_t size, IAMShmBlockHandle* block)
{
    const std::lock_guard<std::mutex> lock(lockOfIam);
    return REAL(IAMShmHandleMalloc)(pool, size, block);
}

#elif defined(BREACH_LOST_RECORD)

int IAMRTDataEnqueue(uint64_t dataHandle, IAMDataPackage* package)
{
    static int count;
    return ++count == 100 ? IAMShmFree(package->pool, package->block) : REAL(IAMRTDataEnqueue)(dataHandle, package);
}

#elif defined(BREACH_REUSED_BLOCK)

static std::mutex mutex;
static char lastWritten[64];

int IAMShmWrite(IAMShmBlockHandle* block, const char* data, uint32_t size, uint32_t offset)
{
    const std::lock_guard<std::mutex> lock(mutex);
    std::memcpy(lastWritten, data, std::min<size_t>(size, sizeof(lastWritten)));
    return REAL(IAMShmWrite)(block, data, size, offset);
}

int64_t IAMFastRead(int fd, void* buffer, size_t length)
{
    const int64_t size = REAL(IAMFastRead)(fd, buffer, length);
    const std::lock_guard<std::mutex> lock(mutex);
    std::memcpy(buffer, lastWritten, std::min<size_t>(size < 0 ? 0 : size, sizeof(lastWritten)));
    return size;
}

#elif defined(BREACH_UNREGISTRATION_WAITS_FOR_NOBODY)

int FTEUnregisterCallback(void)
{
    std::thread([] { REAL(FTEUnregisterCallback)(); }).detach();
    return 0;
}

#elif defined(BREACH_LOG_UNDER_LOCK)

void DlogInner(int module, int level, const char* format, ...)
{
    static std::mutex mutex;
    const std::lock_guard<std::mutex> lock(mutex);
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    REAL(DlogInner)(module, level, "%s", text);
}

#endif

}  // extern "C"

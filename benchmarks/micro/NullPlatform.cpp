// The linker leads this program's calls here first (--wrap); the rows on the host platform pay one test for it.
#include "benchmarks/micro/NullPlatform.h"

#include <cstdint>

#include "iam.h"

namespace {

bool nullPlatform = false;  // one benchmark runs at a time, on one thread

}  // namespace

extern "C" {

int __real_IAMShmHandleMalloc(IAMShmPoolHandle* pool, uint32_t size, IAMShmBlockHandle* block);
int __real_IAMShmWrite(IAMShmBlockHandle* block, const char* data, uint32_t size, uint32_t offset);
int __real_IAMRTDataEnqueue(uint64_t dataHandle, IAMDataPackage* package);

int __wrap_IAMShmHandleMalloc(IAMShmPoolHandle* pool, uint32_t size, IAMShmBlockHandle* block)
{
    return nullPlatform ? 0 : __real_IAMShmHandleMalloc(pool, size, block);
}

int __wrap_IAMShmWrite(IAMShmBlockHandle* block, const char* data, uint32_t size, uint32_t offset)
{
    return nullPlatform ? 0 : __real_IAMShmWrite(block, data, size, offset);
}

int __wrap_IAMRTDataEnqueue(uint64_t dataHandle, IAMDataPackage* package)
{
    return nullPlatform ? 0 : __real_IAMRTDataEnqueue(dataHandle, package);
}

}  // extern "C"

namespace bench {

NullPlatform::NullPlatform()
{
    nullPlatform = true;
}

NullPlatform::~NullPlatform()
{
    nullPlatform = false;
}

}  // namespace bench

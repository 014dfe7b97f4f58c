// The process's own malloc and its kin, in front of those of the C library: count, then pass on. operator new comes
// here too.
#include "benchmarks/micro/Allocations.h"

#include <cerrno>
#include <cstddef>

namespace {

thread_local uint64_t allocations __attribute__((tls_model("initial-exec"))) = 0;

}  // namespace

extern "C" {

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size)
{
    ++allocations;
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size)
{
    ++allocations;
    return __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size)
{
    ++allocations;
    return __libc_realloc(memory, size);
}

void* aligned_alloc(size_t alignment, size_t size)
{
    ++allocations;
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** memory, size_t alignment, size_t size)
{
    ++allocations;
    *memory = __libc_memalign(alignment, size);
    return *memory == nullptr ? ENOMEM : 0;
}

}  // extern "C"

namespace bench {

uint64_t AllocationCount()
{
    return allocations;
}

}  // namespace bench

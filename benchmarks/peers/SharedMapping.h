// An object in memory that both processes of a run share.
#ifndef REPORT_EVENT_BENCHMARKS_SHARED_MAPPING_H
#define REPORT_EVENT_BENCHMARKS_SHARED_MAPPING_H

#include <sys/mman.h>

#include <new>

#include "benchmarks/common/System.h"

namespace bench {

// Made before the fork; every page of it is there from the start.
template <class Shared>
class SharedMapping {
public:
    SharedMapping()
    {
        void* memory =
            mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
        if (memory == MAP_FAILED) {
            ThrowErrno("mmap");
        }
        shared_ = new (memory) Shared;
    }
    SharedMapping(const SharedMapping&) = delete;
    SharedMapping& operator=(const SharedMapping&) = delete;
    ~SharedMapping()
    {
        munmap(shared_, sizeof(Shared));
    }
    Shared& operator*() const
    {
        return *shared_;
    }

private:
    Shared* shared_;
};

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_SHARED_MAPPING_H

// What a process costs in memory, as /proc shows it.
#ifndef REPORT_EVENT_BENCHMARKS_MEMORY_MAP_H
#define REPORT_EVENT_BENCHMARKS_MEMORY_MAP_H

#include <sys/types.h>

#include <cstdint>

namespace bench {

struct MemoryCost {
    uint64_t privateDirtyKib = 0;   // Private_Dirty of all mappings that are not shared ones
    uint64_t largestSharedKib = 0;  // the size of the largest shared mapping
};

// Reads /proc/<pid>/smaps; throws when it cannot.
MemoryCost ReadMemoryCost(pid_t pid);

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_MEMORY_MAP_H

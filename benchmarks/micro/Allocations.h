// Counts the heap allocations of the calling thread, those of the system's libraries included.
#ifndef REPORT_EVENT_BENCHMARKS_ALLOCATIONS_H
#define REPORT_EVENT_BENCHMARKS_ALLOCATIONS_H

#include <benchmark/benchmark.h>

#include <cstdint>

namespace bench {

// Allocations of this thread so far.
uint64_t AllocationCount();

// Sets the counter that every row carries.
inline void ReportAllocations(benchmark::State& state, uint64_t allocations)
{
    state.counters["allocs"] = benchmark::Counter(double(allocations), benchmark::Counter::kAvgIterations);
}

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_ALLOCATIONS_H

// Publishing one raw record over and over, to whatever is below the library.
#ifndef REPORT_EVENT_BENCHMARKS_PUBLISH_LOOP_H
#define REPORT_EVENT_BENCHMARKS_PUBLISH_LOOP_H

#include <benchmark/benchmark.h>

#include <vector>

#include "benchmarks/micro/Allocations.h"
#include "report_event/EventRecord.h"
#include "report_event/ReportEventClient.h"

namespace bench {

using Record = std::vector<char>;

// Of a kind that is not written to the event log.
inline Record MakeRecord()
{
    dsmi_event event{};
    event.assertion = 1;
    const ReportEvent::RawRecord raw = ReportEvent::MakeRawRecord(ReportEvent::FAULT_EVENT, false, event);
    return {raw.bytes, raw.bytes + sizeof(raw.bytes)};
}

inline void PublishInLoop(benchmark::State& state, ReportEventClient& publisher)
{
    const Record record = MakeRecord();
    const uint64_t before = AllocationCount();
    for (auto _ : state) {
        benchmark::DoNotOptimize(publisher.ReportEvent(record.data(), static_cast<unsigned int>(record.size())));
    }
    ReportAllocations(state, AllocationCount() - before);
}

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_PUBLISH_LOOP_H

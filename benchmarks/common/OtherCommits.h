// What the benchmarks use and not every commit of the project has: they are compiled against older ones too.
#ifndef REPORT_EVENT_BENCHMARKS_OTHER_COMMITS_H
#define REPORT_EVENT_BENCHMARKS_OTHER_COMMITS_H

#if __has_include("report_event/ResultCodes.h")
#include "report_event/ResourceNames.h"
#include "report_event/ResultCodes.h"
#endif

// Null where the platform has no observers.
extern "C" void IAMHostObserve(int on) __attribute__((weak));

namespace bench {

#if __has_include("report_event/ResultCodes.h")
constexpr int NO_FREE_BLOCK = ReportEvent::RESULT_NO_BLOCK;
constexpr const char* FAULT_RESOURCE = ReportEvent::PM_FAULT_RESOURCE;
#else
constexpr int NO_FREE_BLOCK = 0xF10209;
constexpr const char* FAULT_RESOURCE = "dp:/res/pm/fm";
#endif

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_OTHER_COMMITS_H

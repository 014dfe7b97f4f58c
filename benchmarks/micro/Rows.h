// The rows of micro.
#ifndef REPORT_EVENT_BENCHMARKS_ROWS_H
#define REPORT_EVENT_BENCHMARKS_ROWS_H

namespace bench {

void RegisterDecodeRows();
void RegisterNullPlatformRow();

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_ROWS_H

// The groups of rows of micro.
#ifndef REPORT_EVENT_BENCHMARKS_ROWS_H
#define REPORT_EVENT_BENCHMARKS_ROWS_H

namespace bench {

void RegisterDecodeRows();
void RegisterPublishRows();

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_ROWS_H

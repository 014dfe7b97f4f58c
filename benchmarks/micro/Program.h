// What the programs of rows share: a Google Benchmark program in an environment of its own.
#ifndef REPORT_EVENT_BENCHMARKS_PROGRAM_H
#define REPORT_EVENT_BENCHMARKS_PROGRAM_H

#include <benchmark/benchmark.h>

#include <functional>
#include <string>

namespace bench {

// The whole of main. The program runs twice: once to set up an environment and clean up after it, and inside that once
// for the rows.
int RunRows(int argc, char** argv, void (*registerRows)());

// A row whose failures end up in its own line.
benchmark::internal::Benchmark* AddRow(const std::string& name, const std::function<void(benchmark::State&)>& body);

// The rows of micro.
void RegisterDecodeRows();
void RegisterNullPlatformRow();

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_PROGRAM_H

// The command line that road and peers share: MODE SIZE COUNT, and the pace of latency runs from the environment.
#ifndef REPORT_EVENT_BENCHMARKS_OPTIONS_H
#define REPORT_EVENT_BENCHMARKS_OPTIONS_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace bench {

enum class Mode { THROUGHPUT, LATENCY };

struct Options {
    Mode mode = Mode::THROUGHPUT;
    size_t size = 0;
    uint64_t count = 0;
    double rateHz = 0;    // pace of a latency run
    uint64_t warmUp = 0;  // records of a latency run that are sent before the `count`, and whose latency does not count
};

// A decimal number of `text` within [lowest, highest]; throws std::invalid_argument that names `what` otherwise.
uint64_t ParseNumber(const std::string& what, const std::string& text, uint64_t lowest, uint64_t highest);

// Throws std::invalid_argument with the cause. The size is bounded by what a record may have at all.
Options ParseOptions(const std::string& mode, const std::string& size, const std::string& count);

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_OPTIONS_H

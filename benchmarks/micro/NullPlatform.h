// A pool and a queue that take everything and keep nothing, for the cost of the library alone.
#ifndef REPORT_EVENT_BENCHMARKS_NULL_PLATFORM_H
#define REPORT_EVENT_BENCHMARKS_NULL_PLATFORM_H

namespace bench {

// While one of these lives, the three calls of a publish go nowhere instead of to the host platform.
class NullPlatform {
public:
    NullPlatform();
    NullPlatform(const NullPlatform&) = delete;
    NullPlatform& operator=(const NullPlatform&) = delete;
    ~NullPlatform();
};

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_NULL_PLATFORM_H

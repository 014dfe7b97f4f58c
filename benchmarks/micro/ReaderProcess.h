// A subscriber in a process of its own, for the rows that publish: it counts what reaches its callback.
#ifndef REPORT_EVENT_BENCHMARKS_READER_PROCESS_H
#define REPORT_EVENT_BENCHMARKS_READER_PROCESS_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "benchmarks/common/System.h"
#include "benchmarks/common/TwoProcesses.h"

namespace bench {

constexpr const char* READER_FLAG = "--reader";

// One page that both processes map: the count of records that have reached the callback.
class SharedCount {
public:
    explicit SharedCount(FileDescriptor memory);  // takes the size it needs
    SharedCount(const SharedCount&) = delete;
    SharedCount& operator=(const SharedCount&) = delete;
    ~SharedCount();

    int Fd() const
    {
        return memory_.Get();
    }
    std::atomic<uint64_t>& operator*() const
    {
        return *count_;
    }

private:
    FileDescriptor memory_;
    std::atomic<uint64_t>* count_;
};

// Connected, with `readers` readers of the resource of which the last one is the current one, when the constructor
// returns; gone when the destructor returns.
class ReaderProcess {
public:
    ReaderProcess(const std::string& resource, size_t readers);
    ReaderProcess(const ReaderProcess&) = delete;
    ReaderProcess& operator=(const ReaderProcess&) = delete;
    ~ReaderProcess();

    // Throws when the reader does not come that far within seconds.
    void AwaitTaken(uint64_t records) const;

private:
    ReaderProcess(std::pair<Link, Link> links, const std::string& resource, size_t readers);

    SharedCount taken_;
    Link link_;
    pid_t pid_ = -1;
};

// The reader's own main: RESOURCE READERS follow the flag.
int RunAsReader(const std::string& resource, const std::string& readers);

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_READER_PROCESS_H

// A subscriber or an observer in a process of its own, for the rows that publish: it counts what reaches its callback.
#ifndef REPORT_EVENT_BENCHMARKS_READER_PROCESS_H
#define REPORT_EVENT_BENCHMARKS_READER_PROCESS_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "benchmarks/common/System.h"
#include "benchmarks/common/TwoProcesses.h"

namespace bench {

constexpr const char* READER_FLAG = "--reader";
constexpr size_t OBSERVER = 0;  // in place of a number of readers: the process observes

// Whether the platform that this program is linked with has observers.
bool ObserversExist();

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

// Connected, with `readers` readers of the resource of which the last one is the current one, or as one observer, when
// the constructor returns; gone when the destructor returns.
class ReaderProcess {
public:
    ReaderProcess(const std::string& resource, size_t readers);
    ReaderProcess(const ReaderProcess&) = delete;
    ReaderProcess& operator=(const ReaderProcess&) = delete;
    ~ReaderProcess();

    uint64_t Taken() const
    {
        return (*taken_).load(std::memory_order_acquire);
    }
    // Throws when the reader does not come that far within seconds.
    void AwaitTaken(uint64_t records) const;

private:
    SharedCount taken_;
    std::unique_ptr<SenderProcess> process_;
};

// The reader's own main: RESOURCE READERS MEMORY_FD follow the flag.
int RunAsReader(char** argv);

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_READER_PROCESS_H

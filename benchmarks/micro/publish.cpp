// publish: what it costs to publish one record on the host platform, with readers of all kinds and an observer, and to
// read one; each row with its heap allocations per operation, and the floor below. A Google Benchmark program: its
// options are that library's. It knows the library and the platform by their public interfaces alone.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "benchmarks/common/System.h"
#include "benchmarks/micro/Allocations.h"
#include "benchmarks/micro/Program.h"
#include "benchmarks/micro/PublishLoop.h"
#include "benchmarks/micro/ReaderProcess.h"
#include "iam.h"
#include "report_event/EventRecord.h"
#include "report_event/ReportEventClient.h"

namespace bench {
namespace {

constexpr const char* RESOURCE = "dp:/res/bench/micro";
constexpr size_t POOL_BLOCKS = 1000;
constexpr size_t BLOCK_STRIDE = 4032;
constexpr size_t LEAD = 300;   // published before a timed batch, so that the reader is at work while it runs
constexpr size_t BATCH = 256;  // together with the lead, well within the pool
constexpr int64_t WAITING_ITERATIONS = 500;
constexpr useconds_t FALL_ASLEEP_US = 200;
constexpr size_t READER_COUNTS[] = {1, 8, 64, 256};

// This process as a publisher.
ReportEventClient& Publisher()
{
    static ReportEventClient& publisher = [&]() -> ReportEventClient& {
        ReportEventClient& client = ReportEventClient::GetInstance();
        if (client.RegisterResService(RESOURCE) != 0) {
            throw std::runtime_error("cannot serve the resource");
        }
        return client;
    }();
    return publisher;
}

void Publish(ReportEventClient& publisher, const Record& record, size_t times)
{
    for (size_t i = 0; i < times; ++i) {
        if (publisher.ReportEvent(record.data(), static_cast<unsigned int>(record.size())) != 0) {
            throw std::runtime_error("ReportEvent failed");
        }
    }
}

// Seconds that something takes; its allocations are added up.
template <class Something>
double Timed(uint64_t& allocations, const Something& something)
{
    const uint64_t before = AllocationCount();
    const int64_t start = NowNs();
    something();
    const int64_t elapsed = NowNs() - start;
    allocations += AllocationCount() - before;
    return double(elapsed) * 1e-9;
}

// Readers that are at work all the while: no bell is rung, blocks come back as they go. Returns how many records were
// published.
uint64_t PublishTo(const ReaderProcess& reader, benchmark::State& state)
{
    ReportEventClient& publisher = Publisher();
    const Record record = MakeRecord();
    uint64_t allocations = 0;
    uint64_t published = 0;
    while (state.KeepRunningBatch(BATCH)) {
        Publish(publisher, record, LEAD);
        state.SetIterationTime(Timed(allocations, [&] { Publish(publisher, record, BATCH); }));
        reader.AwaitTaken(published += LEAD + BATCH);
    }
    ReportAllocations(state, allocations);
    return published;
}

void PublishToBusyReader(benchmark::State& state, size_t readers)
{
    Publisher();
    PublishTo(ReaderProcess(RESOURCE, readers), state);
}

// One reader and one observer at work. The observer may lose records: how many reached it stands beside the figure.
void PublishToObserver(benchmark::State& state)
{
    Publisher();
    const ReaderProcess observer(RESOURCE, OBSERVER);
    const uint64_t published = PublishTo(ReaderProcess(RESOURCE, 1), state);
    observer.AwaitTaken(1);
    state.counters["observed"] = double(observer.Taken()) / double(published);
}

// A reader that sleeps: every record rings the bell.
void PublishToWaitingReader(benchmark::State& state)
{
    ReportEventClient& publisher = Publisher();
    const Record record = MakeRecord();
    const ReaderProcess reader(RESOURCE, 1);
    uint64_t allocations = 0;
    uint64_t published = 0;
    for (auto _ : state) {
        usleep(FALL_ASLEEP_US);
        state.SetIterationTime(Timed(allocations, [&] { Publish(publisher, record, 1); }));
        reader.AwaitTaken(++published);
    }
    ReportAllocations(state, allocations);
}

void PublishToNobody(benchmark::State& state)
{
    PublishInLoop(state, Publisher());
}

// This process reads from itself what it has published before: the reader never sleeps.
void ReadRecords(benchmark::State& state)
{
    ReportEventClient& publisher = Publisher();
    const Record record = MakeRecord();
    Record buffer(ReportEvent::RECORD_SIZE_MAX);
    const FileDescriptor reader(Check(open(RESOURCE, O_RDWR), "cannot open the resource"));
    uint64_t allocations = 0;
    while (state.KeepRunningBatch(BATCH)) {
        Publish(publisher, record, BATCH);
        state.SetIterationTime(Timed(allocations, [&] {
            for (size_t i = 0; i < BATCH; ++i) {
                if (IAMFastRead(reader.Get(), buffer.data(), buffer.size()) != static_cast<int64_t>(record.size())) {
                    throw std::runtime_error("IAMFastRead failed");
                }
            }
        }));
    }
    ReportAllocations(state, allocations);
}

// What no publish can do without: take a lock that nobody else wants and copy the record into a pool.
void LockAndCopy(benchmark::State& state)
{
    const Record record(static_cast<size_t>(state.range(0)), 1);
    Record pool(POOL_BLOCKS * BLOCK_STRIDE);
    std::mutex mutex;
    size_t block = 0;
    const uint64_t before = AllocationCount();
    for (auto _ : state) {
        const std::lock_guard<std::mutex> lock(mutex);
        std::memcpy(pool.data() + block * BLOCK_STRIDE, record.data(), record.size());
        benchmark::ClobberMemory();
        block = block + 1 < POOL_BLOCKS ? block + 1 : 0;
    }
    ReportAllocations(state, AllocationCount() - before);
}

// 256 readers take more descriptors than the usual limit.
void AllowManyDescriptors()
{
    rlimit limit{};
    Check(getrlimit(RLIMIT_NOFILE, &limit), "getrlimit");
    limit.rlim_cur = limit.rlim_max;
    Check(setrlimit(RLIMIT_NOFILE, &limit), "setrlimit");
}

void RegisterRows()
{
    AllowManyDescriptors();
    AddRow("Floor/lock_and_copy", LockAndCopy)->Arg(ReportEvent::RAW_RECORD_SIZE)->Arg(ReportEvent::RECORD_SIZE_MAX);
    AddRow("ReportEvent/host/no_reader", PublishToNobody);
    for (const size_t readers : READER_COUNTS) {
        AddRow("ReportEvent/host/busy_reader/readers:" + std::to_string(readers), [readers](benchmark::State& state) {
            PublishToBusyReader(state, readers);
        })->UseManualTime();
    }
    if (ObserversExist()) {
        AddRow("ReportEvent/host/busy_reader/observers:1", PublishToObserver)->UseManualTime();
    }
    AddRow("ReportEvent/host/waiting_reader", PublishToWaitingReader)->UseManualTime()->Iterations(WAITING_ITERATIONS);
    AddRow("IAMFastRead", ReadRecords)->UseManualTime();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv)
{
    if (argc == 5 && std::strcmp(argv[1], bench::READER_FLAG) == 0) {
        return bench::RunAsReader(argv);
    }
    return bench::RunRows(argc, argv, bench::RegisterRows);
}

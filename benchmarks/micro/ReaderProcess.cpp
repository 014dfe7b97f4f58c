#include "benchmarks/micro/ReaderProcess.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "benchmarks/common/Options.h"
#include "benchmarks/common/OtherCommits.h"
#include "report_event/ReportEventServer.h"

namespace bench {
namespace {

constexpr int64_t PATIENCE_NS = 5000000000;
constexpr uint64_t READERS_MAX = 1024;

// Readers that connect, read nothing and are not the current one.
std::vector<FileDescriptor> OpenOthers(const std::string& resource, uint64_t count)
{
    std::vector<FileDescriptor> others;
    for (uint64_t i = 0; i < count; ++i) {
        others.emplace_back(Check(open(resource.c_str(), O_RDONLY), "cannot open the resource"));
    }
    return others;
}

void Read(const std::string& resource, uint64_t readers, const SharedCount& taken)
{
    Link link{FileDescriptor(INHERITED_LINK_FD)};
    if (readers == OBSERVER) {
        IAMHostObserve(1);
        readers = 1;
    }
    const std::vector<FileDescriptor> others = OpenOthers(resource, readers - 1);
    ReportEventServer& subscriber = ReportEventServer::GetInstance();
    const auto onDevice = [&taken](const dsmi_event&) { (*taken).fetch_add(1, std::memory_order_release); };
    if (subscriber.FmRegisterMidReportEventImpl({resource}, nullptr, onDevice) != 0) {
        throw std::runtime_error("cannot subscribe");
    }
    link.Say(Word::READY);
    link.AwaitEnd();
    subscriber.FmUnregisterReportEventImpl({resource});
}

}  // namespace

bool ObserversExist()
{
    return IAMHostObserve != nullptr;
}

SharedCount::SharedCount(FileDescriptor memory) : memory_(std::move(memory))
{
    const auto size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    Check(ftruncate(memory_.Get(), static_cast<off_t>(size)), "ftruncate");
    void* address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, memory_.Get(), 0);
    if (address == MAP_FAILED) {
        ThrowErrno("mmap");
    }
    count_ = static_cast<std::atomic<uint64_t>*>(address);
}

SharedCount::~SharedCount()
{
    munmap(count_, static_cast<size_t>(sysconf(_SC_PAGESIZE)));
}

ReaderProcess::ReaderProcess(const std::string& resource, size_t readers)
    : taken_(FileDescriptor(Check(memfd_create("report-event-bench-count", 0), "memfd_create"))),
      process_(StartAgain({"publish", READER_FLAG, resource, std::to_string(readers), std::to_string(taken_.Fd())}))
{
    process_->Line().Await(Word::READY);
}

ReaderProcess::~ReaderProcess()
{
    try {
        process_->Finish();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "reader: %s\n", error.what());
    }
}

void ReaderProcess::AwaitTaken(uint64_t records) const
{
    const int64_t deadline = NowNs() + PATIENCE_NS;
    while (Taken() < records) {
        if (NowNs() > deadline) {
            throw std::runtime_error("the reader does not take the records");
        }
        sched_yield();
    }
}

int RunAsReader(char** argv)
{
    try {
        Read(argv[2], ParseNumber("READERS", argv[3], 0, READERS_MAX), SharedCount(FileDescriptor(std::stoi(argv[4]))));
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "reader: %s\n", error.what());
        return EXIT_FAILURE;
    }
}

}  // namespace bench

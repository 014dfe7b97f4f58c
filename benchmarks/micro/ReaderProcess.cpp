#include "benchmarks/micro/ReaderProcess.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

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

constexpr int LINK_FD = 100;  // where the reader finds what it inherits, out of the way of everything else
constexpr int MEMORY_FD = 101;
constexpr int64_t PATIENCE_NS = 5000000000;
constexpr uint64_t READERS_MAX = 1024;

FileDescriptor MakeMemory()
{
    return FileDescriptor(Check(memfd_create("report-event-bench-count", MFD_CLOEXEC), "memfd_create"));
}

// posix_spawn, because this process has threads.
pid_t Spawn(const std::string& resource, size_t readers, int linkFd, int memoryFd)
{
    const std::string readersText = std::to_string(readers);
    std::string program = "publish";
    std::string flag = READER_FLAG;
    std::string name = resource;
    std::string count = readersText;
    char* arguments[] = {program.data(), flag.data(), name.data(), count.data(), nullptr};

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, linkFd, LINK_FD);
    posix_spawn_file_actions_adddup2(&actions, memoryFd, MEMORY_FD);
    pid_t pid = -1;
    errno = posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (errno != 0) {
        ThrowErrno("cannot start the reader");
    }
    return pid;
}

// Readers that connect, read nothing and are not the current one.
std::vector<FileDescriptor> OpenOthers(const std::string& resource, uint64_t count)
{
    std::vector<FileDescriptor> others;
    for (uint64_t i = 0; i < count; ++i) {
        others.emplace_back(Check(open(resource.c_str(), O_RDONLY), "cannot open the resource"));
    }
    return others;
}

void Read(const std::string& resource, uint64_t readers)
{
    const SharedCount taken{FileDescriptor(MEMORY_FD)};
    Link link{FileDescriptor(LINK_FD)};
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
    : ReaderProcess(Link::MakePair(), resource, readers)
{
}

ReaderProcess::ReaderProcess(std::pair<Link, Link> links, const std::string& resource, size_t readers)
    : taken_(MakeMemory()), link_(std::move(links.first))
{
    pid_ = Spawn(resource, readers, links.second.Fd(), taken_.Fd());
    links.second.Hang();
    link_.Await(Word::READY);
}

ReaderProcess::~ReaderProcess()
{
    link_.Hang();
    waitpid(pid_, nullptr, 0);
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
        Check(prctl(PR_SET_PDEATHSIG, SIGKILL), "prctl");
        Read(argv[2], ParseNumber("READERS", argv[3], 0, READERS_MAX));
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "reader: %s\n", error.what());
        return EXIT_FAILURE;
    }
}

}  // namespace bench

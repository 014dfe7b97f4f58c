// micro: what single operations cost, each row with its heap allocations per operation. A Google Benchmark program: its
// options are that library's.
//
// The program runs twice: once to set up an environment and clean up after it, and inside that once for the benchmarks.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <thread>

#include "benchmarks/common/RuntimeDirectory.h"
#include "benchmarks/common/System.h"
#include "benchmarks/micro/ReaderProcess.h"
#include "benchmarks/micro/Rows.h"

namespace bench {
namespace {

constexpr const char* PREPARED = "REPORT_EVENT_MICRO_PREPARED";

volatile pid_t inner = -1;

void PassOn(int signal)
{
    kill(inner, signal);
}

// The event log goes where writing costs a system call and nothing more; the platform reads that setting when it is
// loaded, hence the second run.
int RunPrepared(char** argv)
{
    const RuntimeDirectory directory;
    Check(setenv("SLOG_EVENT_FILE", "/dev/null", 1), "setenv");
    Check(setenv(PREPARED, "1", 1), "setenv");
    inner = Check(fork(), "fork");
    if (inner == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execv("/proc/self/exe", argv);
        std::perror("micro: cannot start again");
        _exit(EXIT_FAILURE);
    }
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action {};
        action.sa_handler = PassOn;
        action.sa_flags = SA_RESTART;
        sigaction(signal, &action, nullptr);
    }
    int status = 0;
    Check(waitpid(inner, &status, 0), "waitpid");
    return WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE;
}

// 256 readers take more descriptors than the usual limit.
void AllowManyDescriptors()
{
    rlimit limit{};
    Check(getrlimit(RLIMIT_NOFILE, &limit), "getrlimit");
    limit.rlim_cur = limit.rlim_max;
    Check(setrlimit(RLIMIT_NOFILE, &limit), "setrlimit");
}

int RunBenchmarks(int argc, char** argv)
{
    // Locks are cheaper in a process without threads, which no user of the library is.
    std::thread([] {
        for (;;) {
            pause();
        }
    }).detach();

    RegisterDecodeRows();
    RegisterPublishRows();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return EXIT_FAILURE;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return EXIT_SUCCESS;
}

int Main(int argc, char** argv)
{
    if (std::getenv(PREPARED) == nullptr) {
        return RunPrepared(argv);
    }
    AllowManyDescriptors();
    if (argc == 4 && std::strcmp(argv[1], READER_FLAG) == 0) {
        return RunAsReader(argv[2], argv[3]);
    }
    return RunBenchmarks(argc, argv);
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv)
{
    try {
        return bench::Main(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "micro: %s\n", error.what());
        return EXIT_FAILURE;
    }
}

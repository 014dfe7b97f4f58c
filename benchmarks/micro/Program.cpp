#include "benchmarks/micro/Program.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>

#include "benchmarks/common/RuntimeDirectory.h"
#include "benchmarks/common/System.h"

namespace bench {
namespace {

constexpr const char* PREPARED = "REPORT_EVENT_ROWS_PREPARED";

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
        std::perror("cannot start again");
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

int RunInside(int argc, char** argv, void (*registerRows)())
{
    // Locks are cheaper in a process without threads, which no user of the library is.
    std::thread([] {
        for (;;) {
            pause();
        }
    }).detach();

    registerRows();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return EXIT_FAILURE;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return EXIT_SUCCESS;
}

}  // namespace

int RunRows(int argc, char** argv, void (*registerRows)())
{
    try {
        return std::getenv(PREPARED) == nullptr ? RunPrepared(argv) : RunInside(argc, argv, registerRows);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return EXIT_FAILURE;
    }
}

benchmark::internal::Benchmark* AddRow(const std::string& name, const std::function<void(benchmark::State&)>& body)
{
    return benchmark::RegisterBenchmark(name.c_str(), [body](benchmark::State& state) {
        try {
            body(state);
        } catch (const std::exception& error) {
            state.SkipWithError(error.what());
        }
    });
}

}  // namespace bench

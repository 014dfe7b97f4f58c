// What docs/clients.md shows about the end of a client: exit, fork, signals, unloading.
#include <dlfcn.h>
#include <spawn.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "report_event/ReportEventServer.h"

namespace leaving {

using Files = std::vector<std::string>;

// region scope
class FaultSubscription {
public:
    // `onDevice` owns what it uses: a device event that comes in on the security file may reach it even later.
    FaultSubscription(Files files, const std::function<void(const dsmi_event&)>& onDevice)
        : files_(std::move(files)),
          result_(ReportEventServer::GetInstance().FmRegisterMidReportEventImpl(files_, nullptr, onDevice))
    {
    }
    ~FaultSubscription()  // also after a failure: some of the files may be subscribed
    {
        ReportEventServer::GetInstance().FmUnregisterReportEventImpl(files_);
    }
    FaultSubscription(const FaultSubscription&) = delete;
    FaultSubscription& operator=(const FaultSubscription&) = delete;

    int Result() const
    {
        return result_;
    }

private:
    const Files files_;  // unregistration lists the files that registration listed: all of them
    const int result_;
};
// endregion

// region let-go
void StopAndForget(const Files& files)  // while both families run
{
    ReportEventServer& server = ReportEventServer::GetInstance();
    server.FmRegisterMidReportEventImpl(files, nullptr, nullptr);  // while running: replaces the callables, no more
    server.RegIDSEventReportHandlerImpl(nullptr);
    server.FmUnregisterReportEventImpl(files);  // these two wait for the calls of the old ones in flight
    server.UnregIDSEventReportHandlerImpl();
}
// endregion

// region spawn
pid_t StartHelper(const char* path, char* const arguments[])
{
    pid_t pid = -1;
    return posix_spawn(&pid, path, nullptr, nullptr, arguments, environ) == 0 ? pid : -1;
}
// endregion

// region fork
pid_t StartShell(const char* command)
{
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", command, nullptr);
        _exit(127);  // not exit: its handlers would wait for read threads that this process does not have
    }
    return pid;
}
// endregion

// region signals
sigset_t BlockStopSignals()  // in main, before the first registration
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);  // inherited by the read threads
    return stop;
}
// endregion

// region unload
void Unload(void* plugin, const Files& files)
{
    StopAndForget(files);
    std::signal(SIGPIPE, SIG_IGN);  // before its handler goes away with the library
    dlclose(plugin);
}
// endregion

}  // namespace leaving

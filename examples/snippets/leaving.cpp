// What docs/clients.md shows about the end of a client: exit and unloading.
#include <dlfcn.h>

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

// region unload
// While both families run; a client of one leaves out the lines of the other.
void StopAndForget(const Files& files)
{
    ReportEventServer& server = ReportEventServer::GetInstance();
    server.FmRegisterMidReportEventImpl(files, nullptr, nullptr);  // while running: replaces the callables, no more
    server.RegIDSEventReportHandlerImpl(nullptr);
    server.FmUnregisterReportEventImpl(files);  // these two wait for the calls of the old ones in flight
    server.UnregIDSEventReportHandlerImpl();
}

void Unload(void* plugin, const Files& files)
{
    StopAndForget(files);
    std::signal(SIGPIPE, SIG_IGN);  // before its handler goes away with the library
    dlclose(plugin);
}
// endregion

}  // namespace leaving

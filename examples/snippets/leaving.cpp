// What docs/clients.md shows about the end of a client: exit and unloading.
#include <dlfcn.h>

#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "report_event/ReportEventServer.h"

namespace leaving {

using Files = std::vector<std::string>;

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

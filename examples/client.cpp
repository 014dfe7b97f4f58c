// The smallest client: prints the process manager's fault events until Ctrl-C.
#include <csignal>
#include <cstdio>

#include "report_event/ReportEventServer.h"
#include "report_event/ResourceNames.h"
#include "report_event/ResultCodes.h"

int main()
{
    sigset_t stop;  // blocked before the library starts its threads: they inherit it, and sigwait gets the signal
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each line leaves at once, also into a pipe

    const std::vector<std::string> files = {ReportEvent::PM_FAULT_RESOURCE};
    ReportEventServer& server = ReportEventServer::GetInstance();
    const int result = server.FmRegisterMidReportEventImpl(
        files,
        [](const EventInfo& event, const UDSInfoForCpp& uds) {
            std::printf("fault 0x%X: %.128s, %zu DIDs\n", event.eventId, event.eventPara.buf, uds.didInfo.size());
        },
        [](const dsmi_event& event) { std::printf("device 0x%X: %.288s\n", event.eventId, event.eventName); });
    if (result == ReportEvent::RESULT_OK) {
        int signal = 0;
        sigwait(&stop, &signal);
    } else {
        std::fprintf(stderr, "cannot subscribe to %s: 0x%X\n", files[0].c_str(), static_cast<unsigned>(result));
    }
    server.FmUnregisterReportEventImpl(files);  // also after a failure, and always before the process exits
    return result == ReportEvent::RESULT_OK ? 0 : 1;
}

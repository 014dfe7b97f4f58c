// What docs/clients.md shows about registering, registering again and renewing a lost file.
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "report_event/ReportEventServer.h"
#include "report_event/ResourceNames.h"
#include "report_event/ResultCodes.h"

namespace registration {

using FaultCallback = std::function<void(const EventInfo&, const UDSInfoForCpp&)>;
using DeviceCallback = std::function<void(const dsmi_event&)>;
using Files = std::vector<std::string>;

// region one-at-a-time
std::mutex registrationMutex;  // no callback takes it

int SubscribeSecurity(const DeviceCallback& callback)
{
    const std::lock_guard<std::mutex> lock(registrationMutex);
    return ReportEventServer::GetInstance().RegIDSEventReportHandlerImpl(callback);
}
// endregion

// region another-list
int ChangeFiles(const Files& before, const Files& after, const FaultCallback& onFault, const DeviceCallback& onDevice)
{
    ReportEventServer& server = ReportEventServer::GetInstance();
    server.FmUnregisterReportEventImpl(before);  // a registration of a running family would ignore the new list
    return server.FmRegisterMidReportEventImpl(after, onFault, onDevice);
}
// endregion

// region try-again
bool SubscribeFaults(const Files& files, const FaultCallback& onFault, const DeviceCallback& onDevice,
                     const std::function<bool()>& waitBeforeNextTry)
{
    ReportEventServer& server = ReportEventServer::GetInstance();
    int result = server.FmRegisterMidReportEventImpl(files, onFault, onDevice);
    while (result == ReportEvent::RESULT_OPEN_FAILED && waitBeforeNextTry()) {
        server.FmUnregisterReportEventImpl(files);  // the family counts as running although a file is missing
        result = server.FmRegisterMidReportEventImpl(files, onFault, onDevice);
    }
    if (result != ReportEvent::RESULT_OK) {
        std::fprintf(stderr, "cannot subscribe: 0x%X\n", static_cast<unsigned>(result));
        server.FmUnregisterReportEventImpl(files);
    }
    return result == ReportEvent::RESULT_OK;
}
// endregion

// region renew
DeviceCallback WatchForLoss(const DeviceCallback& next, const std::function<void()>& wakeMainThread)
{
    return [next, wakeMainThread](const dsmi_event& event) {
        next(event);
        if (event.eventId == ReportEvent::PM_LOST_EVENT_ID) {
            wakeMainThread();  // which unregisters and registers again, as above
        }
    };
}
// endregion

}  // namespace registration

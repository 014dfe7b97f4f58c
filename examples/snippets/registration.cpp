// What docs/clients.md shows about registering until it works.
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "report_event/ReportEventServer.h"
#include "report_event/ResultCodes.h"

namespace registration {

using FaultCallback = std::function<void(const EventInfo&, const UDSInfoForCpp&)>;
using DeviceCallback = std::function<void(const dsmi_event&)>;
using Files = std::vector<std::string>;

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

}  // namespace registration

// What docs/clients.md shows about publishing.
#include <algorithm>
#include <chrono>
#include <thread>

#include "report_event/EventRecord.h"
#include "report_event/ReportEventClient.h"
#include "report_event/ResultCodes.h"

namespace publishing {

// region patient
// Publishes one record and waits, for at most the given time, while the reader is too slow.
int PublishPatiently(const char* record, unsigned int size, std::chrono::milliseconds longest)
{
    const auto deadline = std::chrono::steady_clock::now() + longest;
    std::chrono::milliseconds pause{1};
    int result = ReportEventClient::GetInstance().ReportEvent(record, size);
    while (result == ReportEvent::RESULT_NO_BLOCK && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(pause);  // every failed attempt is a line in the system log
        pause = std::min(2 * pause, std::chrono::milliseconds(100));
        result = ReportEventClient::GetInstance().ReportEvent(record, size);
    }
    return result;
}
// endregion

// region raw-record
int PublishSecurityEvent(dsmi_event event)
{
    const auto record = ReportEvent::MakeRawRecord(ReportEvent::SECURITY_EVENT, /*forceLog=*/false, event);
    return PublishPatiently(reinterpret_cast<const char*>(record.bytes), sizeof(record.bytes), std::chrono::seconds(2));
}
// endregion

}  // namespace publishing

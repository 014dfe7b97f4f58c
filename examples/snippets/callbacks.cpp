// What docs/clients.md shows about callbacks.
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "report_event/ReportEventServer.h"

namespace callbacks {

// region hand-over
struct Fault {
    EventInfo event;
    UDSInfoForCpp uds;
};

class FaultQueue {
public:
    void Push(const EventInfo& event, const UDSInfoForCpp& uds)
    {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            faults_.push_back({event, uds});  // copies: the references end with the callback
        }
        arrived_.notify_one();
    }

    Fault Pop()  // on a thread of the client's own, which may take its time
    {
        std::unique_lock<std::mutex> lock(mutex_);
        arrived_.wait(lock, [this] { return !faults_.empty(); });
        Fault fault = std::move(faults_.front());
        faults_.pop_front();
        return fault;
    }

private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<Fault> faults_;
};
// endregion

std::mutex mutex;
std::vector<uint32_t> seen;

void OnDeviceEvent(const dsmi_event& event)
{
    const std::lock_guard<std::mutex> lock(mutex);
    seen.push_back(event.eventId);
}

// region lock-held
void StopWrong(const std::vector<std::string>& files)
{
    const std::lock_guard<std::mutex> lock(mutex);                        // OnDeviceEvent waits for the lock,
    ReportEventServer::GetInstance().FmUnregisterReportEventImpl(files);  // and this waits for OnDeviceEvent: for ever
    seen.clear();
}

void StopRight(const std::vector<std::string>& files)
{
    ReportEventServer::GetInstance().FmUnregisterReportEventImpl(files);
    const std::lock_guard<std::mutex> lock(mutex);
    seen.clear();
}
// endregion

}  // namespace callbacks

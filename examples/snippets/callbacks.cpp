// What docs/clients.md shows about callbacks.
#include <sys/eventfd.h>

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <exception>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "report_event/ReportEventServer.h"

namespace callbacks {

// region one-lock
class Statistics {
public:
    void Count(uint32_t eventId, uint8_t severity)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        lastId_ = eventId;
        worst_ = severity > worst_ ? severity : worst_;
    }

private:
    std::mutex mutex_;  // read threads and the fault-reporting thread get here at the same time
    uint32_t lastId_ = 0;
    uint8_t worst_ = 0;
};
// endregion

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

// region names
std::string NameOf(const EventInfo& event)
{
    return {event.eventPara.buf, strnlen(event.eventPara.buf, sizeof(event.eventPara.buf))};
}

std::string NameOf(const dsmi_event& event)
{
    return {event.eventName, strnlen(event.eventName, sizeof(event.eventName))};
}
// endregion

// region no-exception
void Keep(std::vector<dsmi_event>& kept, const dsmi_event& event) noexcept
{
    try {
        kept.push_back(event);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "event 0x%X dropped: %s\n", event.eventId, error.what());
    }
}
// endregion

// region stop-by-flag
class StopRequest {
public:
    void Raise()  // from a callback
    {
        eventfd_write(event_, 1);
    }
    void Wait() const  // on the thread that registered, which then unregisters
    {
        eventfd_t count = 0;
        eventfd_read(event_, &count);
    }

private:
    const int event_ = eventfd(0, EFD_CLOEXEC);
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

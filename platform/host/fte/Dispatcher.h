// Delivers fault records to the one callable that the process has registered, on one thread of its own.
#ifndef REPORT_EVENT_PLATFORM_HOST_FTE_DISPATCHER_H
#define REPORT_EVENT_PLATFORM_HOST_FTE_DISPATCHER_H

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <thread>

#include "platform/host/common/Mutex.h"
#include "report_event/EventRecord.h"

namespace host_platform::fte {

using FaultCallback = std::function<int(const unsigned char*, unsigned int)>;

// Lives as long as the process and is never destroyed: exit handlers may run while it delivers. Any thread may call it,
// also the callable itself. Client code (copying, calling and destroying a callable) never runs under a lock.
//
// A child of fork has no dispatcher thread: it must leave by exec or _exit.
class Dispatcher {
public:
    static Dispatcher& Instance();

    // Stores a copy in place of the callable before it, for which a call in flight goes on. The first call starts the
    // thread. Throws what copying the callable and starting a thread throw; then nothing has changed.
    void Register(const FaultCallback& callback);

    // Forgets the callable and what waits for delivery. Waits for the call in flight, except on the dispatcher thread,
    // which would wait for itself. Returns how many records were dropped.
    size_t Unregister();

    enum class Outcome { QUEUED, NO_CALLABLE, QUEUE_FULL };

    // Queues the record for delivery. Never blocks. Throws std::bad_alloc.
    Outcome Report(const ReportEvent::RawRecord& record);

private:
    static constexpr size_t QUEUE_LIMIT = 1024;

    Dispatcher() = default;
    void StartThread();
    void Run();
    void DeliverNext();

    Mutex startMutex_;  // held only to create the thread; never together with mutex_
    bool started_ HOST_GUARDED_BY(startMutex_) = false;

    Mutex mutex_;
    CondVar recordQueued_;
    CondVar deliveryFinished_;
    std::shared_ptr<const FaultCallback> callback_ HOST_GUARDED_BY(mutex_);
    std::deque<ReportEvent::RawRecord> queue_ HOST_GUARDED_BY(mutex_);  // empty while callback_ is null
    uint64_t deliveriesBegun_ HOST_GUARDED_BY(mutex_) = 0;
    uint64_t deliveriesFinished_ HOST_GUARDED_BY(mutex_) = 0;  // equal to the begun ones, or one less
    std::thread::id threadId_ HOST_GUARDED_BY(mutex_);
};

}  // namespace host_platform::fte

#endif  // REPORT_EVENT_PLATFORM_HOST_FTE_DISPATCHER_H

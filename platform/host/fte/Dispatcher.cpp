#include "platform/host/fte/Dispatcher.h"

#include <sys/prctl.h>

#include "platform/host/fte/Log.h"

namespace host_platform::fte {

Dispatcher& Dispatcher::Instance()
{
    static Dispatcher& instance = *new Dispatcher;
    return instance;
}

void Dispatcher::StartThread()
{
    MutexLock lock(startMutex_);
    if (!started_) {
        std::thread([this] { Run(); }).detach();
        started_ = true;
    }
}

void Dispatcher::Register(const FaultCallback& callback)
{
    // Holds the replaced callable from the swap on, and lets it go with no lock held.
    auto exchanged = std::make_shared<const FaultCallback>(callback);
    StartThread();
    MutexLock lock(mutex_);
    callback_.swap(exchanged);
}

size_t Dispatcher::Unregister()
{
    std::shared_ptr<const FaultCallback> forgotten;
    std::deque<ReportEvent::RawRecord> dropped;
    MutexLock lock(mutex_);
    callback_.swap(forgotten);
    queue_.swap(dropped);
    // Waits for one delivery at most: those of a later registration are not this call's business.
    const uint64_t begun = deliveriesBegun_;
    while (deliveriesFinished_ < begun && threadId_ != std::this_thread::get_id()) {
        deliveryFinished_.Wait(mutex_);
    }
    return dropped.size();
}

Dispatcher::Outcome Dispatcher::Report(const ReportEvent::RawRecord& record)
{
    {
        MutexLock lock(mutex_);
        if (callback_ == nullptr) {
            return Outcome::NO_CALLABLE;
        }
        if (queue_.size() >= QUEUE_LIMIT) {
            return Outcome::QUEUE_FULL;
        }
        queue_.push_back(record);
    }
    recordQueued_.NotifyOne();
    return Outcome::QUEUED;
}

void Dispatcher::Run()
{
    prctl(PR_SET_NAME, "fte_dispatcher");
    {
        MutexLock lock(mutex_);
        threadId_ = std::this_thread::get_id();
    }
    for (;;) {
        DeliverNext();
        {
            MutexLock lock(mutex_);
            deliveriesFinished_ = deliveriesBegun_;
        }
        deliveryFinished_.NotifyAll();
    }
}

// An exception from the callable ends the process, as on any thread. The copy of the callable is gone when this
// returns, so that an unregistration also waits for the destruction of a callable replaced during its own call.
void Dispatcher::DeliverNext()
{
    std::shared_ptr<const FaultCallback> callback;
    ReportEvent::RawRecord record;
    {
        MutexLock lock(mutex_);
        while (queue_.empty()) {
            recordQueued_.Wait(mutex_);
        }
        record = queue_.front();
        queue_.pop_front();
        callback = callback_;
        ++deliveriesBegun_;
    }
    const int result = (*callback)(record.bytes, sizeof(record.bytes));
    if (result != 0) {
        FTE_LOG("the registered callable did not deliver a fault, ret=%d", result);
    }
}

}  // namespace host_platform::fte

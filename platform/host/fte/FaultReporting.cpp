// Registration and reporting: the C interface to the dispatcher, and the record that a report becomes.
#include <cstring>
#include <ctime>
#include <exception>

#include "fte.h"
#include "platform/host/fte/Dispatcher.h"
#include "platform/host/fte/FteCodes.h"
#include "platform/host/fte/Log.h"
#include "report_event/EventRecord.h"

namespace host_platform::fte {
namespace {

static_assert(EVENT_SPEC_SIZE_MAX < sizeof(dsmi_event::eventName), "the longest process name has a terminator");

uint64_t NanosecondsSinceEpoch()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000U + static_cast<uint64_t>(now.tv_nsec);
}

ReportEvent::RawRecord MakeRecord(const FTEReportInfo& report)
{
    dsmi_event event{};
    event.eventId = report.eventId;
    event.deviceId = report.deviceId;
    event.severity = report.severity;
    event.assertion = report.assertion;
    event.eventArisedTime = NanosecondsSinceEpoch();
    std::memcpy(event.eventName, report.procName, strnlen(report.procName, EVENT_SPEC_SIZE_MAX));
    // Forced: a lost process belongs into the event log whatever its assertion.
    return ReportEvent::MakeRawRecord(ReportEvent::FAULT_EVENT, true, event);
}

void LogReport(const FTEReportInfo& report, const char* outcome)
{
    FTE_LOG("fault reported: eventId=0x%X, deviceId=%u, severity=%u, assertion=%u, procName=%.*s: %s", report.eventId,
            static_cast<unsigned int>(report.deviceId), static_cast<unsigned int>(report.severity),
            static_cast<unsigned int>(report.assertion), static_cast<int>(EVENT_SPEC_SIZE_MAX), report.procName,
            outcome);
}

// Runs the operation and turns every exception into a code: callers on the other side of a C interface expect none.
template <typename Operation>
int Guarded(const char* name, Operation&& operation)
{
    try {
        return operation();
    } catch (const std::exception& error) {
        FTE_LOG("%s failed: %s", name, error.what());
    } catch (...) {
        FTE_LOG("%s failed: unknown exception", name);
    }
    return FTE_NO_RESOURCE;
}

int Report(const FTEReportInfo& report)
{
    switch (Dispatcher::Instance().Report(MakeRecord(report))) {
        case Dispatcher::Outcome::QUEUED:
            LogReport(report, "queued for delivery");
            return FTE_OK;
        case Dispatcher::Outcome::NO_CALLABLE:
            LogReport(report, "nobody is registered, dropped");
            return FTE_OK;
        case Dispatcher::Outcome::QUEUE_FULL:
            break;
    }
    LogReport(report, "rejected, too many reports wait for delivery");
    return FTE_QUEUE_FULL;
}

}  // namespace
}  // namespace host_platform::fte

using namespace host_platform::fte;

int FTERegisterCallback(const std::function<int(const unsigned char*, unsigned int)>& callback)
{
    if (callback == nullptr) {
        FTE_LOG("FTERegisterCallback failed: empty callable");
        return FTE_NULL_ARGUMENT;
    }
    return Guarded("FTERegisterCallback", [&] {
        Dispatcher::Instance().Register(callback);
        return FTE_OK;
    });
}

int FTEUnregisterCallback(void)
{
    return Guarded("FTEUnregisterCallback", [] {
        const size_t dropped = Dispatcher::Instance().Unregister();
        if (dropped != 0) {
            FTE_LOG("FTEUnregisterCallback: %zu reports dropped", dropped);
        }
        return FTE_OK;
    });
}

int MidFTEReport(FTEReportInfo* report)
{
    if (report == nullptr) {
        FTE_LOG("MidFTEReport failed: null report");
        return FTE_NULL_ARGUMENT;
    }
    return Guarded("MidFTEReport", [&] { return Report(*report); });
}

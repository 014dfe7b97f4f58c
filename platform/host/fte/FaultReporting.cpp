// Registration and reporting: the C interface to the dispatcher, and the record that a report becomes.
#include <cstddef>
#include <cstring>
#include <ctime>
#include <exception>

#include "fte.h"
#include "platform/host/fte/Dispatcher.h"
#include "platform/host/fte/Log.h"

namespace host_platform::fte {
namespace {

// The raw device-management event in a record: offsets of the event's fields, behind the header and forceLog bytes.
constexpr unsigned char RAW_FAULT_RECORD_HEADER = 0x01;
constexpr size_t EVENT_OFFSET = 2;
constexpr size_t EVENT_ID = EVENT_OFFSET + 8;
constexpr size_t DEVICE_ID = EVENT_OFFSET + 12;
constexpr size_t SEVERITY = EVENT_OFFSET + 18;
constexpr size_t ASSERTION = EVENT_OFFSET + 19;
constexpr size_t ARISED_TIME = EVENT_OFFSET + 32;
constexpr size_t EVENT_NAME = EVENT_OFFSET + 40;
constexpr size_t EVENT_NAME_SIZE = 288;
static_assert(EVENT_SPEC_SIZE_MAX < EVENT_NAME_SIZE, "the longest process name leaves room for a terminator");

template <typename T>
void Store(RawRecord& record, size_t offset, T value)
{
    std::memcpy(record.data() + offset, &value, sizeof(value));
}

uint64_t NanosecondsSinceEpoch()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000U + static_cast<uint64_t>(now.tv_nsec);
}

RawRecord MakeRecord(const FTEReportInfo& report)
{
    RawRecord record{};
    record[0] = RAW_FAULT_RECORD_HEADER;
    record[1] = 1;  // forceLog: a lost process belongs into the event log whatever its assertion
    Store(record, EVENT_ID, report.eventId);
    Store(record, DEVICE_ID, report.deviceId);
    Store(record, SEVERITY, report.severity);
    Store(record, ASSERTION, report.assertion);
    Store(record, ARISED_TIME, NanosecondsSinceEpoch());
    std::memcpy(record.data() + EVENT_NAME, report.procName, strnlen(report.procName, EVENT_SPEC_SIZE_MAX));
    return record;
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

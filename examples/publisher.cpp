// The smallest publisher: serves a process manager's resource and publishes one device event a second for a minute.
#include <chrono>
#include <cstdio>
#include <thread>

#include "report_event/EventRecord.h"
#include "report_event/ReportEventClient.h"
#include "report_event/ResourceNames.h"
#include "report_event/ResultCodes.h"

int main()
{
    ReportEventClient& publisher = ReportEventClient::GetInstance();
    int result = publisher.RegisterResService(ReportEvent::PM_FAULT_RESOURCE);
    for (int serial = 1; result == ReportEvent::RESULT_OK && serial <= 60; ++serial) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        dsmi_event event{};
        event.eventId = 0x1001;
        event.assertion = 1;
        event.eventSerialNum = serial;
        std::snprintf(event.eventName, sizeof(event.eventName), "fan %d stopped", serial);
        const auto record = ReportEvent::MakeRawRecord(ReportEvent::FAULT_EVENT, false, event);
        result = publisher.ReportEvent(reinterpret_cast<const char*>(record.bytes), sizeof(record.bytes));
    }
    if (result != ReportEvent::RESULT_OK) {
        std::fprintf(stderr, "publishing on %s failed: 0x%X\n", ReportEvent::PM_FAULT_RESOURCE,
                     static_cast<unsigned>(result));
    }
    return result == ReportEvent::RESULT_OK ? 0 : 1;
}

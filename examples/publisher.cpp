// The smallest publisher: serves a process manager's resource and publishes one device event a second for a minute.
#include <chrono>
#include <cstdio>
#include <thread>

#include "report_event/EventRecord.h"
#include "report_event/ReportEventClient.h"

int main()
{
    ReportEventClient& publisher = ReportEventClient::GetInstance();
    int result = publisher.RegisterResService("dp:/res/pm/fm");
    for (int serial = 1; result == 0 && serial <= 60; ++serial) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        dsmi_event event{};
        event.eventId = 0x1001;
        event.assertion = 1;
        event.eventSerialNum = serial;
        std::snprintf(event.eventName, sizeof(event.eventName), "fan %d stopped", serial);
        const auto record = ReportEvent::MakeRawRecord(ReportEvent::FAULT_EVENT, false, event);
        result = publisher.ReportEvent(reinterpret_cast<const char*>(record.bytes), sizeof(record.bytes));
    }
    if (result != 0) {
        std::fprintf(stderr, "publishing on dp:/res/pm/fm failed: 0x%X\n", static_cast<unsigned>(result));
    }
    return result == 0 ? 0 : 1;
}

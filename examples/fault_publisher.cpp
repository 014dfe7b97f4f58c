// Serves a process manager's resource on a development host and publishes one fault with diagnostic data a second, for
// a minute. On a device, the platform's own encoder takes the place of FaultRecordEncoder.h.
#include <chrono>
#include <cstdio>
#include <thread>

#include "report_event/ReportEventClient.h"
#include "report_event/ResourceNames.h"
#include "report_event/ResultCodes.h"
#include "report_event_host_platform/FaultRecordEncoder.h"

int main()
{
    host_platform::fte::FaultEvent fault;
    fault.eventId = 0x1001;
    fault.assertion = 1;
    fault.name = "fan stopped";
    fault.udsId = 0x22;
    fault.dids = {{0xF190, {0x0A, 0x0B, 0x0C}}, {0xF191, {0xFF}}};
    const auto record = host_platform::fte::EncodeRecord(fault, /*forceLog=*/false);

    ReportEventClient& publisher = ReportEventClient::GetInstance();
    int result = publisher.RegisterResService(ReportEvent::PM_FAULT_RESOURCE);
    for (int second = 0; result == ReportEvent::RESULT_OK && second < 60; ++second) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        result = publisher.ReportEvent(reinterpret_cast<const char*>(record.data()),
                                       static_cast<unsigned int>(record.size()));
    }
    if (result != ReportEvent::RESULT_OK) {
        std::fprintf(stderr, "publishing on %s failed: 0x%X\n", ReportEvent::PM_FAULT_RESOURCE,
                     static_cast<unsigned>(result));
    }
    return result == ReportEvent::RESULT_OK ? 0 : 1;
}

// The names of the platform's resources. Pure: constants, nothing to link.
#ifndef REPORT_EVENT_RESOURCE_NAMES_H
#define REPORT_EVENT_RESOURCE_NAMES_H

#include <cstdint>

namespace ReportEvent {

// The process managers' fault-event resources. A lost one is reported as a fault, not opened again.
constexpr const char* PM_FAULT_RESOURCE = "dp:/res/pm/fm";
constexpr const char* SEA_PM_FAULT_RESOURCE = "sea:/res/pm/fm";

// The one resource of the security events.
constexpr const char* SECURITY_RESOURCE = "dp:/res/iam/sec_event";

// The fault as which the loss of a process manager's resource is reported: the `eventId` of a dsmi_event.
constexpr uint32_t PM_LOST_EVENT_ID = 0x8C03A000;

}  // namespace ReportEvent

#endif  // REPORT_EVENT_RESOURCE_NAMES_H

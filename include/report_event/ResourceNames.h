// The names of the platform's resources, and the rule for the names that a client may list. Pure: constants and one
// function, no I/O, no state, safe on any thread.
#ifndef REPORT_EVENT_RESOURCE_NAMES_H
#define REPORT_EVENT_RESOURCE_NAMES_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace ReportEvent {

// The process managers' fault-event resources. A lost one is reported as a fault, not opened again.
constexpr const char* PM_FAULT_RESOURCE = "dp:/res/pm/fm";
constexpr const char* SEA_PM_FAULT_RESOURCE = "sea:/res/pm/fm";

// The one resource of the security events.
constexpr const char* SECURITY_RESOURCE = "dp:/res/iam/sec_event";

// The fault as which the loss of a process manager's resource is reported: the `eventId` of a dsmi_event.
constexpr uint32_t PM_LOST_EVENT_ID = 0x8C03A000;

// What follows the first ':' of every fault-event resource's name.
constexpr const char* RESOURCE_PATH_PREFIX = "/res/";

// What a name breaks of the rule for fault-event resources, the first that applies.
enum class NameFault {
    NONE,          // the name is acceptable
    HAS_DOT,       // it has a '.'
    NO_COLON,      // it has no ':'
    WRONG_PREFIX,  // the text right after its first ':' does not begin with "/res/"
    HAS_NUL,       // it has a NUL character, at which the system would cut it off
};

// Judges one name of a fault-event registration. The text before the first ':' may be anything, even empty.
constexpr NameFault CheckResourceName(std::string_view name)
{
    const std::string_view prefix = RESOURCE_PATH_PREFIX;
    const size_t colon = name.find(':');
    if (name.find('.') != std::string_view::npos) {
        return NameFault::HAS_DOT;
    }
    if (colon == std::string_view::npos) {
        return NameFault::NO_COLON;
    }
    if (name.substr(colon + 1, prefix.size()) != prefix) {
        return NameFault::WRONG_PREFIX;
    }
    return name.find('\0') == std::string_view::npos ? NameFault::NONE : NameFault::HAS_NUL;
}

}  // namespace ReportEvent

#endif  // REPORT_EVENT_RESOURCE_NAMES_H

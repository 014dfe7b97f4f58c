// Events as text: a line of aligned columns, or one JSON object. Pure functions, any thread.
#ifndef REPORT_EVENT_TOOLS_EVENT_TEXT_H
#define REPORT_EVENT_TOOLS_EVENT_TEXT_H

#include <chrono>
#include <string>

#include "report_event/EventRecord.h"
#include "report_event/EventTypes.h"

namespace tools {

enum class TextStyle { Plain, Colour, Json };

using ArrivalTime = std::chrono::system_clock::time_point;

// The head of the columns, without a line feed.
std::string ColumnHeader();

// One event each, without a line feed. Names end at their first NUL and are quoted; whatever bytes they hold, plain and
// coloured text is printable ASCII (but for the colours) and JSON is valid UTF-8.
std::string DescribeFault(TextStyle style, ArrivalTime arrival, const EventInfo& event, const UDSInfoForCpp& uds);
std::string DescribeDevice(TextStyle style, ArrivalTime arrival, ReportEvent::EventType family,
                           const dsmi_event& event);

// What DescribeDevice and DescribeFault put into a JSON object, key by key, for people.
std::string JsonDescription();

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_EVENT_TEXT_H

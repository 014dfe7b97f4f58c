// Points in time as text. Pure functions but for the time zone, which is the process's; any thread.
#ifndef REPORT_EVENT_TOOLS_TIMES_H
#define REPORT_EVENT_TOOLS_TIMES_H

#include <chrono>
#include <optional>
#include <string>

namespace tools {

using SystemTime = std::chrono::system_clock::time_point;

// "2024-05-06T07:08:09.012345Z", and back: nothing when the text is not of just that form.
std::string UtcTime(SystemTime time);
std::optional<SystemTime> ParseUtcTime(const std::string& text);

// "2024-05-06" and "07:08:09.012345", local or UTC.
std::string DateText(SystemTime time, bool utc);
std::string TimeOfDayText(SystemTime time, bool utc);

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_TIMES_H

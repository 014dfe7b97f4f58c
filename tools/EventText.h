// Events as rows of aligned columns, for people. Pure functions but for the time zone, any thread.
#ifndef REPORT_EVENT_TOOLS_EVENT_TEXT_H
#define REPORT_EVENT_TOOLS_EVENT_TEXT_H

#include <cstddef>
#include <optional>
#include <string>

#include "tools/EventJson.h"

namespace tools {

struct RowStyle {
    bool colour = false;
    bool shortTimes = false;  // as on a terminal: without a date where it is that of the header
    bool utc = false;         // else local time
    bool delta = false;       // the time since the event before in the place of that of arrival
    size_t resourceWidth = 13;
};

// The head of the columns, without a line feed. Where times have no date, `day` stands for all that arrive on it.
std::string HeaderRow(const RowStyle& style, SystemTime day);

// One event, without a line feed. Whatever bytes its name holds, the row is valid UTF-8 without control characters (but
// for the colours). `before` is when the event before arrived, if there was one.
std::string ToRow(const RowStyle& style, const Json& event, SystemTime arrival, std::optional<SystemTime> before);

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_EVENT_TEXT_H

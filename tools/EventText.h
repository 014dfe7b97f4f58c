// Events as text: a line of aligned columns, or one JSON object. Pure functions, any thread.
#ifndef REPORT_EVENT_TOOLS_EVENT_TEXT_H
#define REPORT_EVENT_TOOLS_EVENT_TEXT_H

#include <string>

#include "tools/Event.h"

namespace tools {

enum class TextStyle { Plain, Colour, Json };

// The head of the columns, without a line feed.
std::string ColumnHeader();

// One event, without a line feed. Whatever bytes its name holds, the line is valid UTF-8 without control characters
// (but for the colours).
std::string Describe(TextStyle style, const Event& event);

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_EVENT_TEXT_H

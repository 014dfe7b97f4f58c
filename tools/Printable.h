// Text that somebody else chose, made safe to show: hostile names must neither command a terminal nor reorder its
// lines. Pure functions, any thread.
#ifndef REPORT_EVENT_TOOLS_PRINTABLE_H
#define REPORT_EVENT_TOOLS_PRINTABLE_H

#include <string>
#include <string_view>

namespace tools {

bool IsUtf8(std::string_view text);

// Characters stay as they are, but for those that control a terminal or the direction of text (as \u001b) and for bytes
// that are no UTF-8 (as \xff). What JSON allows inside a text stays JSON.
std::string Printable(std::string_view text);

// The same in double quotes, with quotes and backslashes of its own escaped.
std::string Quoted(std::string_view text);

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_PRINTABLE_H

// Bytes, names, numbers and times as text, and back. Pure functions, but for the time zone; any thread.
#ifndef REPORT_EVENT_TOOLS_TEXT_H
#define REPORT_EVENT_TOOLS_TEXT_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

// Two digits a byte.
std::string ToHexadecimal(const void* data, size_t size);
// Blanks between bytes are allowed. Throws std::invalid_argument with the cause.
std::vector<unsigned char> ParseHexadecimal(std::string_view text);

// "0x1001"
std::string Hex(uint32_t number);
// A whole number in decimal or, after 0x, in hexadecimal; nothing when the text is not one.
std::optional<uint64_t> ParseNumber(std::string_view text);

bool IsUtf8(std::string_view text);
// Text that somebody else chose, made safe to show. Characters stay as they are, but for those that control a terminal
// or the direction of text (as \u001b) and for bytes that are no UTF-8 (as \xff). What is JSON stays JSON.
std::string Printable(std::string_view text);
// The same in double quotes, with quotes and backslashes of its own escaped.
std::string Quoted(std::string_view text);

using Microseconds = std::chrono::microseconds;
using SystemTime = std::chrono::time_point<std::chrono::system_clock, Microseconds>;

SystemTime Now();
// "2024-05-06T07:08:09.012345", with a Z behind it when it is UTC and not local.
std::string TimeText(SystemTime time, bool utc);
// Nothing when the text is not of just that form, in UTC.
std::optional<SystemTime> ParseUtcTime(const std::string& text);

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_TEXT_H

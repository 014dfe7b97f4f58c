// Bytes as hexadecimal text, two digits each, and back. Pure functions, any thread.
#ifndef REPORT_EVENT_TOOLS_HEXADECIMAL_H
#define REPORT_EVENT_TOOLS_HEXADECIMAL_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

std::string ToHexadecimal(const void* data, size_t size);

// Blanks between bytes are allowed. Throws std::invalid_argument with the cause.
std::vector<unsigned char> ParseHexadecimal(std::string_view text);

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_HEXADECIMAL_H

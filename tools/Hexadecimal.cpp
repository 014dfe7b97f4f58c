#include "tools/Hexadecimal.h"

#include <stdexcept>

namespace tools {

namespace {

int DigitOf(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

}  // namespace

std::string ToHexadecimal(const void* data, size_t size)
{
    static constexpr char DIGITS[] = "0123456789abcdef";
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::string text;
    text.reserve(2 * size);
    for (size_t i = 0; i < size; ++i) {
        text += DIGITS[bytes[i] >> 4];
        text += DIGITS[bytes[i] & 0xF];
    }
    return text;
}

std::vector<unsigned char> ParseHexadecimal(std::string_view text)
{
    std::vector<unsigned char> bytes;
    for (size_t i = 0; i < text.size();) {
        if (text[i] == ' ' || text[i] == '\t' || text[i] == '\r') {
            ++i;
            continue;
        }
        const int high = DigitOf(text[i]);
        const int low = i + 1 < text.size() ? DigitOf(text[i + 1]) : -1;
        if (high < 0 || low < 0) {
            throw std::invalid_argument("not a byte of two hexadecimal digits at character " + std::to_string(i + 1));
        }
        bytes.push_back(static_cast<unsigned char>(high << 4 | low));
        i += 2;
    }
    return bytes;
}

}  // namespace tools

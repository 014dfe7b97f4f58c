#include "tools/Text.h"

#include <utf8.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <stdexcept>

namespace tools {

namespace {

// Control characters; then marks, separators, embeddings and isolates that change where text stands.
constexpr char32_t COMMANDS[][2] = {{0, 0x1F},        {0x7F, 0x9F},     {0x61C, 0x61C},
                                    {0x200E, 0x200F}, {0x2028, 0x202E}, {0x2066, 0x2069}};

bool IsCommand(char32_t character)
{
    return std::any_of(std::begin(COMMANDS), std::end(COMMANDS),
                       [character](const auto& range) { return character >= range[0] && character <= range[1]; });
}

std::string MakePrintable(std::string_view text, std::string_view escaped)
{
    const auto isPlain = [escaped](char c) { return c >= ' ' && c <= '~' && escaped.find(c) == escaped.npos; };
    std::string line;
    char escape[16];
    for (auto at = text.begin(); at != text.end();) {
        const auto start = at;
        if (isPlain(*at)) {
            at = std::find_if_not(at, text.end(), isPlain);
            line.append(start, at);
        } else if (utf8::find_invalid(at, at + std::min<ptrdiff_t>(4, text.end() - at)) == at) {
            std::snprintf(escape, sizeof(escape), "\\x%02x", static_cast<unsigned char>(*at++));
            line += escape;
        } else if (const char32_t character = utf8::unchecked::next(at); IsCommand(character)) {
            std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned int>(character));
            line += escape;
        } else {
            line += escaped.find(*start) == escaped.npos ? "" : "\\";
            line.append(start, at);
        }
    }
    return line;
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
        unsigned char byte = 0;
        const char* const end = text.data() + std::min(i + 2, text.size());
        const auto [stop, error] = std::from_chars(text.data() + i, end, byte, 16);
        if (error != std::errc() || stop != text.data() + i + 2) {
            throw std::invalid_argument("not a byte of two hexadecimal digits at character " + std::to_string(i + 1));
        }
        bytes.push_back(byte);
        i += 2;
    }
    return bytes;
}

std::string Hex(uint32_t number)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%04X", number);
    return text;
}

std::optional<uint64_t> ParseNumber(std::string_view text)
{
    const bool hexadecimal = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char* end = text.data() + text.size();
    uint64_t value = 0;
    const auto [stop, error] = std::from_chars(text.data() + (hexadecimal ? 2 : 0), end, value, hexadecimal ? 16 : 10);
    if (error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return value;
}

bool IsUtf8(std::string_view text)
{
    return utf8::find_invalid(text.begin(), text.end()) == text.end();
}

std::string Printable(std::string_view text)
{
    return MakePrintable(text, "");
}

std::string Quoted(std::string_view text)
{
    return '"' + MakePrintable(text, "\"\\") + '"';
}

SystemTime Now()
{
    return std::chrono::floor<Microseconds>(std::chrono::system_clock::now());
}

std::string TimeText(SystemTime time, bool utc)
{
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    const time_t count = seconds.time_since_epoch().count();
    tm fields{};
    if (utc) {
        gmtime_r(&count, &fields);
    } else {
        localtime_r(&count, &fields);
    }
    char text[64];
    const size_t length = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &fields);
    std::snprintf(text + length, sizeof(text) - length, ".%06d%s", static_cast<int>((time - seconds).count()),
                  utc ? "Z" : "");
    return text;
}

std::optional<SystemTime> ParseUtcTime(const std::string& text)
{
    tm fields{};
    const char* const fraction = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S.", &fields);
    if (fraction == nullptr || text.size() != sizeof("2024-05-06T07:08:09.012345Z") - 1) {
        return std::nullopt;
    }
    const SystemTime time{std::chrono::seconds(timegm(&fields)) + Microseconds(std::strtoul(fraction, nullptr, 10))};
    return TimeText(time, true) == text ? std::optional(time) : std::nullopt;
}

}  // namespace tools

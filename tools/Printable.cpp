#include "tools/Printable.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace tools {

namespace {

struct Character {
    uint32_t value;
    size_t length;  // in bytes; 0 when they are no UTF-8
};

constexpr Character NO_CHARACTER = {0, 0};

Character FirstOf(std::string_view text)
{
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) {
        return {lead, 1};
    }
    const size_t length = lead < 0xE0 ? 2 : (lead < 0xF0 ? 3 : 4);
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length) {
        return NO_CHARACTER;
    }
    uint32_t value = lead & (0x7FU >> length);
    for (size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xC0) != 0x80) {
            return NO_CHARACTER;
        }
        value = value << 6 | (byte & 0x3FU);
    }
    static constexpr uint32_t LEAST_OF_LENGTH[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool isSurrogate = value >= 0xD800 && value <= 0xDFFF;
    if (value < LEAST_OF_LENGTH[length] || value > 0x10FFFF || isSurrogate) {
        return NO_CHARACTER;
    }
    return {value, length};
}

struct Range {
    uint32_t first;
    uint32_t last;
};

// Control characters; then marks, separators, embeddings and isolates that change where text stands.
constexpr Range COMMANDS[] = {{0, 0x1F},        {0x7F, 0x9F},     {0x61C, 0x61C},
                              {0x200E, 0x200F}, {0x2028, 0x202E}, {0x2066, 0x2069}};

bool IsCommand(uint32_t character)
{
    for (const Range& range : COMMANDS) {
        if (character >= range.first && character <= range.last) {
            return true;
        }
    }
    return false;
}

// What needs no second look: it stands for itself wherever it stands.
size_t PlainLength(std::string_view text)
{
    size_t length = 0;
    while (length < text.size() && text[length] >= ' ' && text[length] < 0x7F && text[length] != '"' &&
           text[length] != '\\') {
        ++length;
    }
    return length;
}

void AppendPrintable(std::string& line, std::string_view text, std::string_view escaped)
{
    for (;;) {
        const size_t plain = PlainLength(text);
        line += text.substr(0, plain);
        text.remove_prefix(plain);
        if (text.empty()) {
            return;
        }
        const Character character = FirstOf(text);
        char escape[16];
        if (character.length == 0) {
            std::snprintf(escape, sizeof(escape), "\\x%02x", static_cast<unsigned char>(text[0]));
            line += escape;
        } else if (IsCommand(character.value)) {
            std::snprintf(escape, sizeof(escape), "\\u%04x", character.value);
            line += escape;
        } else {
            line += escaped.find(text[0]) == std::string_view::npos ? "" : "\\";
            line += text.substr(0, character.length);
        }
        text.remove_prefix(character.length == 0 ? 1 : character.length);
    }
}

}  // namespace

bool IsUtf8(std::string_view text)
{
    while (!text.empty()) {
        const size_t length = FirstOf(text).length;
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

std::string Printable(std::string_view text)
{
    std::string line;
    line.reserve(text.size());
    AppendPrintable(line, text, "");
    return line;
}

std::string Quoted(std::string_view text)
{
    std::string line = "\"";
    AppendPrintable(line, text, "\"\\");
    return line + '"';
}

}  // namespace tools

// What the programs are made of: text that is safe to show.
#include <gtest/gtest.h>

#include <string>

#include "tools/Printable.h"

namespace tools {
namespace {

TEST(Printable, ShowsTextAsItIsAndEscapesWhatCommandsATerminal)
{
    const struct {
        std::string text, shown;
        bool isUtf8;
    } cases[] = {
        {"a \\\" \xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", "\"a \\\\\\\" \xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80\"",
         true},
        {"\x1B[2J\n\x7F", "\"\\u001b[2J\\u000a\\u007f\"", true},
        {"\xC2\x9B \xE2\x80\xAE \xE2\x81\xA9", "\"\\u009b \\u202e \\u2069\"", true},
        {"\xC2\xA0\xE2\x80\x8D\xE2\x80\xAF", "\"\xC2\xA0\xE2\x80\x8D\xE2\x80\xAF\"", true},
        {"\xFF\xC3", "\"\\xff\\xc3\"", false},
        {"\xC0\xAF\xE0\x80\xAF", "\"\\xc0\\xaf\\xe0\\x80\\xaf\"", false},  // longer than they need to be
        {"\xED\xA0\x80\xF4\x90\x80\x80", "\"\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80\"", false},  // no characters
        {"\xE2\x28\xA1", "\"\\xe2(\\xa1\"", false},
    };
    for (const auto& [text, shown, isUtf8] : cases) {
        EXPECT_EQ(Quoted(text), shown);
        EXPECT_EQ(IsUtf8(text), isUtf8) << shown;
    }
    EXPECT_EQ(Printable("\"\\\""), "\"\\\"");
}

}  // namespace
}  // namespace tools

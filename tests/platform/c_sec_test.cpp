// The promises of c_sec.h: what the functions copy, and the state of the destination after each kind of refusal.
#include <cstdint>

#include "Platform.h"
#include "tests/platform/Support.h"

namespace platform_test {
namespace {

using namespace std::string_literals;

enum Function { COPY, SET, TEXT };

int Call(Function function, char* dest, size_t destMax, const char* source, size_t count)
{
    if (function == SET) {
        return memset_s(dest, destMax, 0x100 + *source, count);
    }
    return function == COPY ? memcpy_s(dest, destMax, source, count) : strncpy_s(dest, destMax, source, count);
}

TEST(SecureFunctions, CopyOrLeaveTheDestinationInItsKnownState)
{
    Promise("c_sec.h", "each function returns 0 and copies, or fails and leaves the destination in its known state",
            "a client would get the text of another event, or the process would be damaged");
    const std::string before = "before!\0"s;  // fills the destination, terminator included
    const std::string zeroed(8, '\0');
    const char source[] = {'1', '2', '3', '4', '5', '6', '7', '8', 'a'};  // not terminated
    // Function, size of the destination, source, count, success, destination afterwards (a text up to its terminator).
    const std::tuple<Function, size_t, const char*, size_t, bool, std::string> cases[] = {
        {COPY, 8, source, 8, true, "12345678"},    {COPY, 8, source, 3, true, "123ore!\0"s},
        {SET, 8, "w", 8, true, "wwwwwwww"},        {COPY, SIZE_MAX, source, 1, true, "1efore!\0"s},
        {COPY, 8, source, 9, false, zeroed},       {COPY, 8, nullptr, 0, false, zeroed},
        {COPY, 0, source, 0, false, before},       {COPY, SIZE_MAX, nullptr, 1, false, before},
        {SET, 8, "x", 3, true, "xxxore!\0"s},      {SET, 8, "y", 9, false, "yyyyyyyy"},
        {SET, 0, "z", 0, false, before},           {SET, SIZE_MAX - 1, "z", SIZE_MAX, false, before},
        {TEXT, 8, "abc", 2, true, "ab\0"s},        {TEXT, 8, "abc", SIZE_MAX, true, "abc\0"s},
        {TEXT, 8, "abc", 0, true, "\0"s},          {TEXT, 8, source, 7, true, "1234567\0"s},
        {TEXT, 8, source, SIZE_MAX, false, "\0"s}, {TEXT, 8, nullptr, 3, false, "\0"s},
        {TEXT, 0, "a", 1, false, before}};
    for (const auto& [function, destMax, text, count, works, after] : cases) {
        std::string destination = before + '#';  // the last byte must survive everything
        EXPECT_EQ(Call(function, destination.data(), destMax, text, count) == 0, works);
        EXPECT_EQ(destination.substr(0, after.size()) + destination[8], after + '#') << destMax << "/" << count;
        EXPECT_NE(Call(function, nullptr, 8, "a", 0), 0);
    }
}

}  // namespace
}  // namespace platform_test

#include "tools/Times.h"

#include <cstdio>
#include <cstring>
#include <ctime>

namespace tools {

namespace {

using std::chrono::microseconds;

microseconds SinceEpoch(SystemTime time)
{
    return std::chrono::floor<microseconds>(time.time_since_epoch());
}

tm FieldsOf(SystemTime time, bool utc)
{
    const time_t seconds = std::chrono::floor<std::chrono::seconds>(SinceEpoch(time)).count();
    tm fields{};
    if (utc) {
        gmtime_r(&seconds, &fields);
    } else {
        localtime_r(&seconds, &fields);
    }
    return fields;
}

// ".012345"
std::string FractionText(SystemTime time)
{
    const microseconds sinceEpoch = SinceEpoch(time);
    const microseconds fraction = sinceEpoch - std::chrono::floor<std::chrono::seconds>(sinceEpoch);
    char text[32];
    std::snprintf(text, sizeof(text), ".%06lld", static_cast<long long>(fraction.count()));
    return text;
}

}  // namespace

std::string UtcTime(SystemTime time)
{
    return DateText(time, true) + "T" + TimeOfDayText(time, true) + "Z";
}

std::optional<SystemTime> ParseUtcTime(const std::string& text)
{
    tm fields{};
    int fraction = 0;
    char end = 0;
    const char* const rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &fields);
    if (rest == nullptr || std::sscanf(rest, ".%6d%c", &fraction, &end) != 2 || end != 'Z') {
        return std::nullopt;
    }
    constexpr int YEAR_MAX = 2261;  // the last whole year that a SystemTime can tell
    if (fields.tm_year < 1970 - 1900 || fields.tm_year > YEAR_MAX - 1900) {
        return std::nullopt;
    }
    const SystemTime time{std::chrono::seconds(timegm(&fields)) + microseconds(fraction)};
    return UtcTime(time) == text ? std::optional(time) : std::nullopt;
}

std::string DateText(SystemTime time, bool utc)
{
    const tm fields = FieldsOf(time, utc);
    char text[32];
    return std::string(text, std::strftime(text, sizeof(text), "%Y-%m-%d", &fields));
}

std::string TimeOfDayText(SystemTime time, bool utc)
{
    const tm fields = FieldsOf(time, utc);
    char text[32];
    return std::string(text, std::strftime(text, sizeof(text), "%H:%M:%S", &fields)) + FractionText(time);
}

}  // namespace tools

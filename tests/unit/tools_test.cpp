// What the programs are made of: the JSON form of events, rows for people, filters, summaries, text that is safe to
// show.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "report_event/ResourceNames.h"
#include "tools/EventJson.h"
#include "tools/EventPrinter.h"
#include "tools/EventText.h"
#include "tools/Records.h"
#include "tools/Text.h"

namespace tools {
namespace {

const SystemTime ARRIVAL = *ParseUtcTime("2024-05-06T07:08:09.000345Z");

const std::string FAULT =
    R"({"kind":"fault","resource":"dp:/res/pm/fm","arrival":"2024-05-06T07:08:09.000345Z","eventId":65535,)"
    R"("eventName":"fan é\u001b\"","assertion":255,"nodeId":4294967295,"deviceId":7,"osId":134810123,"udsId":3085,)"
    R"("dids":[{"did":1,"data":"01ff"},{"did":61857,"data":""}]})";

// Its name is no UTF-8, and goes on behind a NUL.
const std::string DEVICE =
    R"({"kind":"device","resource":"x:/res/y","arrival":"2024-05-06T07:08:09.000345Z","eventId":185207048,)"
    R"("eventName":"","eventNameHex":"ff0062","severity":18,"assertion":19,"nodeId":15,"deviceId":3340,"osId":72,)"
    R"("eventSerialNum":-5,"notifySerialNum":454695192,"eventArisedTime":18446744073709551615,"reserved":"0001020304050)"
    R"(6070e10111c1d1e1f494a4b4c4d4e4f505152535455565758595a5b5c5d5e5f6061626364656667"})";

// An event with other values than DEVICE has.
Json DeviceWith(const Json& values)
{
    Json event = Json::parse(DEVICE);
    event.update(values);
    return event;
}

TEST(EventJson, ANameThatIsNoTextStandsInHexadecimal)
{
    for (const auto& [bytes, hexadecimal] : {std::pair("a\0b", "610062"), {"\xFF\0\0", "ff"}}) {
        dsmi_event event{};
        std::memcpy(event.eventName, bytes, 3);
        EXPECT_EQ(ToJson("x:/res/y", {}, ReportEvent::FAULT_EVENT, event)["eventNameHex"], hexadecimal);
    }
}

TEST(EventJson, AnEventIsReadWhateverElseItHoldsAndRefusedWithItsCauseWhenItDoesNotFit)
{
    const struct {
        std::string line, part, replacement, cause;
    } cases[] = {
        {FAULT, "{\"kind", "{\"new\":[1],\"kind", ""},
        {FAULT, "01ff", "01 FF", ""},
        {FAULT, "\"fault\"", "\"pm-lost\"", "kind: 'pm-lost' cannot be published"},
        {FAULT, "\"kind\"", "\"kin\"", "kind: missing"},
        {FAULT, "65535", "65536", "eventId: 65536 is not a whole number from 0 to 65535"},
        {FAULT, "65535", "1.5", "eventId: 1.5 is not a whole number from"},
        {FAULT, "\"udsId\":3085,", "", "udsId: missing"},
        {FAULT, "01ff", "01f", "data: not a byte of two hexadecimal digits at character 3"},
        {FAULT, "\"dids\":[", "\"dids\":7,\"x\":[", "dids: not an array"},
        {FAULT, "{\"did\":1,\"data\":\"01ff\"}", "5", "did: missing"},
        {FAULT, "fan ", std::string(125, 'n'), "event name of 129 bytes; at most 128 fit"},
        {DEVICE, ":-5", ":-2147483649", "eventSerialNum: -2147483649 is not a whole number from -2147483648"},
        {DEVICE, ":-5", ":2147483648", "eventSerialNum: 2147483648 is not a whole number from -2147483648"},
        {DEVICE, "18446744073709551615", "18446744073709551616", "eventArisedTime: 1.8446744073709552e+19 is not"},
        {DEVICE, "18446744073709551615", "-1", "eventArisedTime: -1 is not a whole number from 0"},
        {DEVICE, "6667\"", "66\"", "reserved: not 46 bytes"},
        {DEVICE, "ff0062", std::string(578, '0'), "eventName: 289 bytes; at most 288 fit"},
        {DEVICE, "\"ff0062\"", "5", "eventNameHex: not a text"},
    };
    for (const auto& [line, part, replacement, cause] : cases) {
        std::string changed = line;
        changed.replace(line.find(part), part.size(), replacement);
        std::string message;
        try {
            MakeRecord(Json::parse(changed), false);
        } catch (const std::logic_error& error) {
            message = error.what();
        }
        EXPECT_EQ(message.substr(0, cause.size()), cause) << changed;
        EXPECT_EQ(message.empty(), cause.empty()) << message;
    }
}

TEST(Text, TimesAreReadOnlyInTheFormInWhichTheyAreWritten)
{
    for (const std::string time :
         {"1969-12-31T23:59:59.999999Z", "2024-02-29T07:08:09.000345Z", "9999-12-31T00:00:00.000000Z"}) {
        const std::optional<SystemTime> parsed = ParseUtcTime(time);
        ASSERT_TRUE(parsed) << time;
        EXPECT_EQ(TimeText(*parsed, true), time);
    }
    for (const std::string time :
         {"", "2024-05-06T07:08:09.000345", "2024-05-66T07:08:09.000345Z", "2023-02-29T07:08:09.000345Z",
          "2024-05-06 07:08:09.000345Z", "2024-05-06T07:08:09.345Z", "2024-05-06T07:08:09.000345Zx",
          "2024-05-06T07:08:09.9223372036854775807Z"}) {
        EXPECT_FALSE(ParseUtcTime(time)) << time;
    }
}

// From now on local time is five hours ahead of UTC.
void SetLocalTime()
{
    setenv("TZ", "XYZ-5", 1);
    tzset();
}

TEST(EventText, ARowOfEachKindStandsUnderItsHeaderWithinAHundredColumns)
{
    SetLocalTime();
    RowStyle style;
    style.shortTimes = true;
    const Json device = DeviceWith(Json::parse(
        R"({"eventName":"test event","eventId":2162169857,"severity":3,"assertion":1,"nodeId":1,"deviceId":22,"osId":3,)"
        R"("eventSerialNum":-42,"notifySerialNum":0,"eventArisedTime":1714979289000999999,"resource":"dp:/res/pm/fm",)"
        R"("reserved":"00"})"));
    Json lost = device;
    lost.update({{"kind", PM_LOST}, {"resource", FAULT_REPORTING}, {"deviceId", 65535}});
    const struct {
        Json event;
        std::string row;
    } cases[] = {
        {device,
         "12:08:09.000345 12:08:09.000 device   0x80E01801   3   1    1/22/3    -42 dp:/res/pm/fm \"test event\""},
        {lost,
         "12:08:09.000345 12:08:09.000 pm-lost  0x80E01801   3   1 1/65535/3    -42 fault-reporting \"test event\" "
         "(this process manager is gone)"},
        {Json::parse(FAULT),
         "12:08:09.000345 -            fault    0xFFFF       - 255 4294967295/7/134810123      - dp:/res/pm/fm "
         "\"fan \xC3\xA9\\u001b\\\"\" uds=0x0C0D did:0x0001=01ff did:0xF1A1="},
        {Json::parse(DEVICE),
         "12:08:09.000345 2554-07-22T04:34:33.709551 device   0xB0A0908   18  19 15/3340/72     -5 x:/res/y      "
         "\"\" notify=454695192 reserved=00010203040506070e10111c1d1e1f494a4b4c4d4e4f505152535455565758595a5b5c5d"
         "5e5f6061626364656667"},
    };
    for (const auto& [event, row] : cases) {
        EXPECT_EQ(ToRow(style, event, ARRIVAL, std::nullopt), row);
    }
    EXPECT_EQ(HeaderRow(style, ARRIVAL),
              "2024-05-06      ARISED       KIND     EVENT      SEV ASS NODE/D/OS SERIAL RESOURCE      NAME ...");
    EXPECT_EQ(cases[0].row.size(), 100U);
}

TEST(EventText, TimesAndColoursAreThoseAskedFor)
{
    SetLocalTime();
    const Json device = DeviceWith({{"eventArisedTime", 1714979289000999999}});
    const auto times = [&device](const RowStyle& style) {
        const std::string row = ToRow(style, device, ARRIVAL, ARRIVAL - std::chrono::milliseconds(1500));
        return row.substr(0, row.find(" device "));
    };
    RowStyle style;
    EXPECT_EQ(times(style), "2024-05-06T12:08:09.000345 2024-05-06T12:08:09.000999");
    style.utc = true;
    EXPECT_EQ(times(style), "2024-05-06T07:08:09.000345Z 2024-05-06T07:08:09.000999Z");
    style.delta = true;
    EXPECT_EQ(times(style), "       1.500000 2024-05-06T07:08:09.000999Z");
    style.shortTimes = true;
    EXPECT_EQ(times(style), "       1.500000 07:08:09.000");
    EXPECT_EQ(HeaderRow(style, {}).substr(0, 22), "AFTER (S)       ARISED");
    style.delta = false;
    EXPECT_EQ(HeaderRow(style, {}).substr(0, 22), "1970-01-01 UTC  ARISED");

    // The warmer, the more severe; green is over, and a fault, which has no severity, stands between.
    style.colour = true;
    const Json fault = Json::parse(FAULT);
    Json pastFault = fault;
    pastFault["assertion"] = 0;
    const auto withSeverity = [](int severity, int assertion) {
        return DeviceWith({{"severity", severity}, {"assertion", assertion}});
    };
    // The identifier of a loss makes none when somebody else uses it.
    dsmi_event notLost{};
    notLost.eventId = ReportEvent::PM_LOST_EVENT_ID;
    const struct {
        Json event;
        std::string colour;
    } cases[] = {{withSeverity(0, 1), "\x1B[36m"},
                 {withSeverity(1, 1), "\x1B[33m"},
                 {withSeverity(2, 1), "\x1B[31m"},
                 {withSeverity(255, 1), "\x1B[31m"},
                 {withSeverity(2, 0), "\x1B[32m"},
                 {DeviceWith({{"kind", PM_LOST}}), "\x1B[1;31m"},
                 {ToJson("x:/res/y", {}, ReportEvent::FAULT_EVENT, notLost), "\x1B[32m"},
                 {fault, "\x1B[33m"},
                 {pastFault, "\x1B[32m"}};
    for (const auto& [event, colour] : cases) {
        const std::string text = ToRow(style, event, ARRIVAL, std::nullopt);
        EXPECT_EQ(text.substr(0, colour.size()), colour) << event;
        EXPECT_EQ(text.substr(text.size() - 4), "\x1B[0m");
    }
}

TEST(EventFilter, AnEventPassesWhenItFitsEachKindOfFilter)
{
    const Json device = DeviceWith({{"eventId", 0x20}, {"severity", 2}});
    Json fault = Json::parse(FAULT);
    fault["eventId"] = 0x10;
    const struct {
        std::string options;
        bool deviceToo, faultToo;
    } cases[] = {
        {"", true, true},
        {"--kind device", true, false},
        {"--kind fault --kind device", true, true},
        {"--kind pm-lost --kind security", false, false},
        {"--event-id 0x20", true, false},
        {"--event-id 17-0x20", true, false},
        {"--event-id 16-31", false, true},
        {"--event-id 0-15 --event-id 33-4294967295", false, false},
        {"--event-id 16 --event-id 32", true, true},
        {"--severity 2", true, false},
        {"--severity 3", false, false},
        {"--severity 1 --event-id 16", false, false},
    };
    for (const auto& [options, deviceToo, faultToo] : cases) {
        CLI::App app;
        EventFilter filter;
        filter.AddTo(app);
        app.parse(options);
        EXPECT_EQ(filter.Passes(device), deviceToo) << options;
        EXPECT_EQ(filter.Passes(fault), faultToo) << options;
    }
    for (const char* const options : {"--kind x", "--event-id 2-1", "--event-id 1-", "--event-id -1", "--event-id x",
                                      "--event-id 4294967296", "--severity 256"}) {
        CLI::App app;
        EventFilter filter;
        filter.AddTo(app);
        EXPECT_THROW(app.parse(options), CLI::ParseError) << options;
    }
}

TEST(Statistics, TheSummaryTellsHowManyOfWhatHowOftenAndTheLongestGap)
{
    const Statistics::Clock::time_point start;
    Statistics statistics(start);
    const Json device = Json::parse(DEVICE);
    statistics.Add(device, start + std::chrono::milliseconds(7000));
    statistics.Add(Json::parse(FAULT), start + std::chrono::milliseconds(9500));
    statistics.Add(device, start + std::chrono::milliseconds(10500));
    const std::vector<std::string> expected = {"3 events in 12.0 s: 0.2 per second, longest gap 2.5 s",
                                               "  2 device from x:/res/y", "  1 fault from dp:/res/pm/fm"};
    EXPECT_EQ(statistics.Summary(start + std::chrono::seconds(12)), expected);
}

TEST(Text, ShowsTextAsItIsAndEscapesWhatCommandsATerminal)
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
    EXPECT_EQ(ToLine("\xC2\x9B"), "\"\\u009b\"");
}

}  // namespace
}  // namespace tools

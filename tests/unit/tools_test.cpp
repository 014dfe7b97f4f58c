// What the programs are made of: the JSON form of events, rows for people, filters, summaries, text that is safe to
// show.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/EventFilter.h"
#include "tools/EventJson.h"
#include "tools/EventText.h"
#include "tools/Printable.h"
#include "tools/Records.h"
#include "tools/Statistics.h"

namespace tools {
namespace {

constexpr const char* ARRIVAL = "2024-05-06T07:08:09.000345Z";

StoredEvent Make(EventKind kind, const std::string& resource, std::string_view name)
{
    StoredEvent event;
    event.kind = kind;
    event.resource = resource;
    event.arrival = ParseUtcTime(ARRIVAL);
    event.SetName(name);
    return event;
}

StoredEvent MakeFault()
{
    StoredEvent event = Make(EventKind::Fault, "dp:/res/pm/fm", "fan \xC3\xA9\x1B\"");
    event.fault.eventId = 65535;
    event.fault.assertion = 255;
    event.fault.nodeId = 4294967295;
    event.fault.deviceId = 7;
    event.fault.osId = 134810123;
    event.uds = {3085, {{1, {1, 255}}, {61857, {}}}};
    return event;
}

// Every byte of it tells its own place. The name is no UTF-8, and goes on behind a NUL.
StoredEvent MakeDevice()
{
    StoredEvent event = Make(EventKind::Device, "x:/res/y", "");
    auto* const bytes = reinterpret_cast<unsigned char*>(&event.device);
    std::iota(bytes, bytes + sizeof(event.device), static_cast<unsigned char>(0));
    event.device.eventSerialNum = -5;
    event.device.eventArisedTime = UINT64_MAX;
    std::memset(event.device.eventName, 0, sizeof(event.device.eventName));
    event.SetName(std::string_view("\xFF\0b", 3));
    return event;
}

struct PinnedLine {
    StoredEvent event;
    std::string line;
};

std::vector<PinnedLine> PinnedLines()
{
    return {
        {MakeFault(),
         R"({"kind":"fault","resource":"dp:/res/pm/fm","arrival":"2024-05-06T07:08:09.000345Z","eventId":65535,)"
         R"("eventName":"fan é\u001b\"","assertion":255,"nodeId":4294967295,"deviceId":7,"osId":134810123,)"
         R"("udsId":3085,"dids":[{"did":1,"data":"01ff"},{"did":61857,"data":""}]})"},
        {MakeDevice(),
         R"({"kind":"device","resource":"x:/res/y","arrival":"2024-05-06T07:08:09.000345Z","eventId":185207048,)"
         "\"eventName\":\"\xEF\xBF\xBD\","
         R"("eventNameHex":"ff0062","severity":18,"assertion":19,"nodeId":15,"deviceId":3340,"osId":72,)"
         R"("eventSerialNum":-5,"notifySerialNum":454695192,"eventArisedTime":18446744073709551615,)"
         R"("reserved":"00010203040506070e10111c1d1e1f494a4b4c4d4e4f505152535455565758595a5b5c5d5e5f6061626364656667"})"},
        {Make(EventKind::Security, "dp:/res/iam/sec_event", std::string(288, 'n')),
         R"({"kind":"security","resource":"dp:/res/iam/sec_event","arrival":"2024-05-06T07:08:09.000345Z",)"
         R"("eventId":0,"eventName":")" +
             std::string(288, 'n') +
             R"(","severity":0,"assertion":0,"nodeId":0,"deviceId":0,"osId":0,"eventSerialNum":0,)"
             R"("notifySerialNum":0,"eventArisedTime":0,"reserved":")" +
             std::string(92, '0') + R"("})"},
    };
}

TEST(EventJson, TheFormOfEachKindIsPinnedAndReadsBackToTheSameRecord)
{
    for (const PinnedLine& pinned : PinnedLines()) {
        EXPECT_EQ(ToLine(ToJson(pinned.event.View())), pinned.line);
        const StoredEvent read = ParseEvent(pinned.line);
        EXPECT_EQ(ToLine(ToJson(read.View())), pinned.line);
        EXPECT_EQ(MakeRecord(read, true), MakeRecord(pinned.event, true)) << pinned.line;
    }
    dsmi_event lost{};
    lost.eventId = 0x8C03A000;
    EXPECT_EQ(MakeEvent(FAULT_REPORTING, {}, ReportEvent::FAULT_EVENT, lost).kind, EventKind::PmLost);
    EXPECT_EQ(MakeEvent("x:/res/y", {}, ReportEvent::FAULT_EVENT, lost).kind, EventKind::Device);
}

TEST(EventJson, ALineIsReadWhateverElseItHoldsAndRefusedWithItsCauseWhenItDoesNotFit)
{
    const std::string fault = ToLine(ToJson(MakeFault().View()));
    const std::string device = ToLine(ToJson(MakeDevice().View()));
    const struct {
        std::string line, part, replacement, cause;
    } cases[] = {
        {fault, "{\"kind", "{\"new\":[1],\"kind", ""},
        {fault, "\"arrival\":\"2024-05-06T07:08:09.000345Z\",", "", ""},
        {device, "\"resource\":\"x:/res/y\",", "", ""},
        {fault, "}]}", "}]", "not a JSON object"},
        {fault, fault, "[]", "not a JSON object"},
        {fault, "\"fault\"", "\"panic\"", "'kind' is not fault, device, security or pm-lost"},
        {fault, "\"kind\"", "\"kin\"", "no 'kind'"},
        {fault, "09.000345Z", "09.000345", "'arrival' is not a time"},
        {fault, "05-06T", "05-66T", "'arrival' is not a time"},
        {fault, "65535", "65536", "'eventId' is not a whole number from 0 to 65535"},
        {fault, "65535", "-1", "'eventId' is not a whole number"},
        {fault, "65535", "1.5", "'eventId' is not a whole number"},
        {fault, "\"udsId\":3085,", "", "no 'udsId'"},
        {fault, "01ff", "01f", "'data': not a byte of two hexadecimal digits at character 3"},
        {fault, "\"dids\":[", "\"dids\":7,\"x\":[", "'dids' is not an array"},
        {fault, "fan ", std::string(125, 'n'), "a name of 129 bytes; at most 128 fit into a fault event"},
        {device, ":-5", ":-2147483649", "'eventSerialNum' is not a whole number from -2147483648 to 2147483647"},
        {device, "18446744073709551615", "18446744073709551616", "'eventArisedTime' is not a whole number"},
        {device, "6667\"", "66\"", "'reserved' is not hexadecimal text of 46 bytes"},
        {device, "ff0062", std::string(578, '0'), "a name of 289 bytes; at most 288 fit into a device event"},
        {device, "\"ff0062\"", "5", "'eventNameHex' is not a text"},
    };
    for (const auto& [line, part, replacement, cause] : cases) {
        std::string changed = line;
        changed.replace(line.find(part), part.size(), replacement);
        std::string message;
        try {
            ParseEvent(changed);
        } catch (const std::invalid_argument& error) {
            message = error.what();
        }
        EXPECT_EQ(message.substr(0, cause.size()), cause) << changed;
        EXPECT_EQ(message.empty(), cause.empty()) << message;
    }
}

// Local time is five hours ahead of UTC while this lives.
class LocalTime {
public:
    LocalTime()
    {
        setenv("TZ", "XYZ-5", 1);
        tzset();
    }
    ~LocalTime()
    {
        unsetenv("TZ");
        tzset();
    }
};

TEST(EventText, ARowOfEachKindStandsUnderItsHeaderWithinAHundredColumns)
{
    const LocalTime fiveHoursAhead;
    RowStyle style;
    style.shortTimes = true;
    StoredEvent device = Make(EventKind::Device, "dp:/res/pm/fm", "test event");
    device.device.eventId = 0x80E01801;
    device.device.severity = 3;
    device.device.assertion = 1;
    device.device.nodeId = 1;
    device.device.deviceId = 22;
    device.device.osId = 3;
    device.device.eventSerialNum = -42;
    device.device.eventArisedTime = 1714979289000999999;
    StoredEvent earlier = device;
    earlier.device.eventArisedTime -= 86400 * 1000000000ULL;
    StoredEvent odd = device;
    odd.device.eventArisedTime = 9;
    odd.device.notifySerialNum = 7;
    odd.device.reserved14 = 0xAB;
    StoredEvent lost = device;
    lost.kind = EventKind::PmLost;
    lost.resource = "fault-reporting";
    lost.device.deviceId = 65535;
    lost.SetName("pm");
    const struct {
        StoredEvent event;
        std::string row;
    } cases[] = {
        {device,
         "12:08:09.000345 12:08:09.000 device   0x80E01801   3   1    1/22/3    -42 dp:/res/pm/fm \"test event\""},
        {earlier,
         "12:08:09.000345 2024-05-05T12:08:09.000999 device   0x80E01801   3   1    1/22/3    -42 dp:/res/pm/fm "
         "\"test event\""},
        {odd,
         "12:08:09.000345 9            device   0x80E01801   3   1    1/22/3    -42 dp:/res/pm/fm \"test event\" "
         "notify=7 reserved=0000000000000000ab" +
             std::string(74, '0')},
        {lost,
         "12:08:09.000345 12:08:09.000 pm-lost  0x80E01801   3   1 1/65535/3    -42 fault-reporting \"pm\" (this "
         "process manager is gone)"},
        {MakeFault(),
         "12:08:09.000345 -            fault    0xFFFF       - 255 4294967295/7/134810123      - dp:/res/pm/fm "
         "\"fan \xC3\xA9\\u001b\\\"\" uds=0x0C0D did:0x0001=01ff did:0xF1A1="}};
    for (const auto& [event, row] : cases) {
        EXPECT_EQ(ToRow(style, event.View(), std::nullopt), row);
    }
    EXPECT_EQ(HeaderRow(style, *device.arrival),
              "2024-05-06      ARISED       KIND     EVENT      SEV ASS NODE/D/OS SERIAL RESOURCE      NAME ...");
    EXPECT_EQ(cases[0].row.size(), 100U);
}

TEST(EventText, TimesAndColoursAreThoseAskedFor)
{
    const LocalTime fiveHoursAhead;
    StoredEvent device = Make(EventKind::Device, "x:/res/y", "");
    device.device.eventArisedTime = 1714979289000999999;
    const auto row = [&](const RowStyle& style) {
        return ToRow(style, device.View(), *device.arrival - std::chrono::microseconds(1500000));
    };
    const std::string rest = " device   0x0000       0   0     0/0/0      0 x:/res/y      \"\"";
    RowStyle style;
    EXPECT_EQ(row(style), "2024-05-06T12:08:09.000345 2024-05-06T12:08:09.000999" + rest);
    style.utc = true;
    EXPECT_EQ(row(style), "2024-05-06T07:08:09.000345Z 2024-05-06T07:08:09.000999Z" + rest);
    style.delta = true;
    EXPECT_EQ(row(style), "       1.500000 2024-05-06T07:08:09.000999Z" + rest);
    style.shortTimes = true;
    EXPECT_EQ(row(style), "       1.500000 07:08:09.000" + rest);
    EXPECT_EQ(HeaderRow(style, {}).substr(0, 22), "AFTER (S)       ARISED");
    style.delta = false;
    EXPECT_EQ(HeaderRow(style, {}).substr(0, 22), "1970-01-01 UTC  ARISED");

    // The warmer, the more severe; green is over, and a fault, which has no severity, stands between.
    style.colour = true;
    const struct {
        EventKind kind;
        uint8_t severity, assertion;
        const char* colour;
    } cases[] = {{EventKind::Device, 0, 1, "\x1B[36m"}, {EventKind::Security, 1, 1, "\x1B[33m"},
                 {EventKind::Device, 2, 1, "\x1B[31m"}, {EventKind::Device, 255, 1, "\x1B[31m"},
                 {EventKind::Device, 2, 0, "\x1B[32m"}, {EventKind::PmLost, 0, 0, "\x1B[1;31m"},
                 {EventKind::Fault, 0, 1, "\x1B[33m"},  {EventKind::Fault, 0, 0, "\x1B[32m"}};
    for (const auto& [kind, severity, assertion, colour] : cases) {
        StoredEvent event = Make(kind, "x:/res/y", "");
        event.device.severity = severity;
        event.device.assertion = assertion;
        event.fault.assertion = assertion;
        const std::string text = ToRow(style, event.View(), std::nullopt);
        EXPECT_EQ(text.substr(0, strlen(colour)), colour) << KindName(kind) << int{severity};
        EXPECT_EQ(text.substr(text.size() - 4), "\x1B[0m");
    }
}

TEST(EventFilter, AnEventPassesWhenItFitsEachKindOfFilter)
{
    StoredEvent device = Make(EventKind::Device, "x:/res/y", "");
    device.device.eventId = 0x20;
    device.device.severity = 2;
    StoredEvent fault = Make(EventKind::Fault, "x:/res/y", "");
    fault.fault.eventId = 0x10;
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
        EXPECT_EQ(filter.Passes(device.View()), deviceToo) << options;
        EXPECT_EQ(filter.Passes(fault.View()), faultToo) << options;
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
    const StoredEvent device = Make(EventKind::Device, "x:/res/y", "");
    const StoredEvent fault = Make(EventKind::Fault, "dp:/res/pm/fm", "");
    statistics.Add(device.View(), start + std::chrono::milliseconds(7000));
    statistics.Add(fault.View(), start + std::chrono::milliseconds(8000));
    statistics.Add(device.View(), start + std::chrono::milliseconds(10500));
    const std::vector<std::string> expected = {"3 events in 12.0 s: 0.2 per second, longest gap 2.5 s",
                                               "         1 fault    dp:/res/pm/fm", "         2 device   x:/res/y"};
    EXPECT_EQ(statistics.Summary(start + std::chrono::seconds(12)), expected);
}

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

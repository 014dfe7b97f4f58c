// What the programs are made of: the JSON form of events, rows for people, filters, summaries, text that is safe to
// show.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/EventJson.h"
#include "tools/EventPrinter.h"
#include "tools/EventText.h"
#include "tools/Records.h"
#include "tools/Text.h"

namespace tools {
namespace {

using ReportEvent::FAULT_EVENT;

const SystemTime ARRIVAL = *ParseUtcTime("2024-05-06T07:08:09.000345Z");

struct Fault {
    EventInfo event{};
    UDSInfoForCpp uds;

    Json ToJson() const
    {
        return tools::ToJson("dp:/res/pm/fm", ARRIVAL, event, uds);
    }
};

Fault MakeFault()
{
    Fault fault;
    fault.event = {65535, 255, 4294967295, 7, 134810123, {"fan \xC3\xA9\x1B\""}};
    fault.uds = {3085, {{1, {1, 255}}, {61857, {}}}};
    return fault;
}

// Every byte of it tells its own place. The name is no UTF-8, and goes on behind a NUL.
dsmi_event MakeDevice()
{
    dsmi_event event;
    auto* const bytes = reinterpret_cast<unsigned char*>(&event);
    std::iota(bytes, bytes + sizeof(event), static_cast<unsigned char>(0));
    event.eventSerialNum = -5;
    event.eventArisedTime = UINT64_MAX;
    std::memset(event.eventName, 0, sizeof(event.eventName));
    std::memcpy(event.eventName, "\xFF\0b", 3);
    return event;
}

Json DeviceJson(const dsmi_event& event)
{
    return ToJson("x:/res/y", ARRIVAL, FAULT_EVENT, event);
}

TEST(EventJson, ANameThatIsNoTextStandsInHexadecimalAndComesBack)
{
    const dsmi_event device = MakeDevice();
    const Json event = DeviceJson(device);
    EXPECT_EQ(event["eventNameHex"], "ff0062");
    const ReportEvent::RawRecord raw = ReportEvent::MakeRawRecord(FAULT_EVENT, true, device);
    EXPECT_EQ(MakeRecord(Json::parse(ToLine(event)), true), Record(std::begin(raw.bytes), std::end(raw.bytes)));
    dsmi_event full{};
    std::memset(full.eventName, 'n', sizeof(full.eventName));
    EXPECT_FALSE(DeviceJson(full).contains("eventNameHex"));
    dsmi_event lost{};
    lost.eventId = 0x8C03A000;
    EXPECT_EQ(DeviceJson(lost)["kind"], "device");
}

TEST(EventJson, AnEventIsReadWhateverElseItHoldsAndRefusedWithItsCauseWhenItDoesNotFit)
{
    const std::string fault = ToLine(MakeFault().ToJson());
    const std::string device = ToLine(DeviceJson(MakeDevice()));
    const struct {
        std::string line, part, replacement, cause;
    } cases[] = {
        {fault, "{\"kind", "{\"new\":[1],\"kind", ""},
        {fault, "01ff", "01 FF", ""},
        {fault, "\"fault\"", "\"pm-lost\"", "kind: 'pm-lost' cannot be published"},
        {fault, "\"kind\"", "\"kin\"", "kind: missing"},
        {fault, "65535", "65536", "eventId: 65536 is not a whole number from 0 to 65535"},
        {fault, "65535", "1.5", "eventId: 1.5 is not a whole number from"},
        {fault, "65535", "true", "eventId: true is not a whole number from"},
        {fault, "\"udsId\":3085,", "", "udsId: missing"},
        {fault, "01ff", "01f", "data: not a byte of two hexadecimal digits at character 3"},
        {fault, "01ff", "0x01", "data: not a byte of two hexadecimal digits at character 1"},
        {fault, "\"dids\":[", "\"dids\":7,\"x\":[", "dids: not an array"},
        {fault, "{\"did\":1,\"data\":\"01ff\"}", "5", "did: missing"},
        {fault, "fan ", std::string(125, 'n'), "event name of 129 bytes; at most 128 fit"},
        {device, ":-5", ":-2147483649", "eventSerialNum: -2147483649 is not a whole number from -2147483648"},
        {device, ":-5", ":2147483648", "eventSerialNum: 2147483648 is not a whole number from -2147483648"},
        {device, "18446744073709551615", "18446744073709551616", "eventArisedTime: 1.8446744073709552e+19 is not"},
        {device, "18446744073709551615", "-1", "eventArisedTime: -1 is not a whole number from 0"},
        {device, "6667\"", "66\"", "reserved: not 46 bytes"},
        {device, "ff0062", std::string(578, '0'), "eventName: 289 bytes; at most 288 fit"},
        {device, "\"ff0062\"", "5", "eventNameHex: not a text"},
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
    dsmi_event device{};
    std::strcpy(device.eventName, "test event");
    device.eventId = 0x80E01801;
    device.severity = 3;
    device.assertion = 1;
    device.nodeId = 1;
    device.deviceId = 22;
    device.osId = 3;
    device.eventSerialNum = -42;
    device.eventArisedTime = 1714979289000999999;
    dsmi_event lost = device;
    lost.eventId = 0x8C03A000;
    lost.deviceId = 65535;
    const struct {
        Json event;
        std::string row;
    } cases[] = {
        {ToJson("dp:/res/pm/fm", ARRIVAL, FAULT_EVENT, device),
         "12:08:09.000345 12:08:09.000 device   0x80E01801   3   1    1/22/3    -42 dp:/res/pm/fm \"test event\""},
        {ToJson(FAULT_REPORTING, ARRIVAL, FAULT_EVENT, lost),
         "12:08:09.000345 12:08:09.000 pm-lost  0x8C03A000   3   1 1/65535/3    -42 fault-reporting \"test event\" "
         "(this process manager is gone)"},
        {MakeFault().ToJson(),
         "12:08:09.000345 -            fault    0xFFFF       - 255 4294967295/7/134810123      - dp:/res/pm/fm "
         "\"fan \xC3\xA9\\u001b\\\"\" uds=0x0C0D did:0x0001=01ff did:0xF1A1="},
        {DeviceJson(MakeDevice()),
         "12:08:09.000345 2554-07-22T04:34:33.709551 device   0xB0A0908   18  19 15/3340/72     -5 x:/res/y      "
         "\"\\xff\" notify=454695192 reserved=00010203040506070e10111c1d1e1f494a4b4c4d4e4f505152535455565758595a5b5c5d"
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
    const LocalTime fiveHoursAhead;
    dsmi_event device{};
    device.eventArisedTime = 1714979289000999999;
    const auto row = [&device](const RowStyle& style) {
        return ToRow(style, DeviceJson(device), ARRIVAL, ARRIVAL - std::chrono::milliseconds(1500));
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
    Fault fault;
    Fault assertedFault;
    assertedFault.event.assertion = 1;
    const auto withSeverity = [](uint8_t severity, uint8_t assertion) {
        dsmi_event event{};
        event.severity = severity;
        event.assertion = assertion;
        return DeviceJson(event);
    };
    dsmi_event lost{};
    lost.eventId = 0x8C03A000;
    const struct {
        Json event;
        std::string colour;
    } cases[] = {{withSeverity(0, 1), "\x1B[36m"},     {withSeverity(1, 1), "\x1B[33m"},
                 {withSeverity(2, 1), "\x1B[31m"},     {withSeverity(255, 1), "\x1B[31m"},
                 {withSeverity(2, 0), "\x1B[32m"},     {ToJson(FAULT_REPORTING, {}, FAULT_EVENT, lost), "\x1B[1;31m"},
                 {assertedFault.ToJson(), "\x1B[33m"}, {fault.ToJson(), "\x1B[32m"}};
    for (const auto& [event, colour] : cases) {
        const std::string text = ToRow(style, event, ARRIVAL, std::nullopt);
        EXPECT_EQ(text.substr(0, colour.size()), colour) << event;
        EXPECT_EQ(text.substr(text.size() - 4), "\x1B[0m");
    }
}

TEST(EventFilter, AnEventPassesWhenItFitsEachKindOfFilter)
{
    dsmi_event device{};
    device.eventId = 0x20;
    device.severity = 2;
    Fault fault;
    fault.event.eventId = 0x10;
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
        EXPECT_EQ(filter.Passes(DeviceJson(device)), deviceToo) << options;
        EXPECT_EQ(filter.Passes(fault.ToJson()), faultToo) << options;
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
    const Json device = DeviceJson({});
    statistics.Add(device, start + std::chrono::milliseconds(7000));
    statistics.Add(Fault().ToJson(), start + std::chrono::milliseconds(9500));
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
}

}  // namespace
}  // namespace tools

// What report-event-publish does beyond the plain road: recordings, pauses in its input, the pace of its records.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <random>

#include "report_event/ResourceNames.h"
#include "tests/system/Programs.h"
#include "tools/EventJson.h"

namespace system_test {
namespace {

using Publish = ProgramsTest;
using Clock = std::chrono::steady_clock;

// Events of every kind, in no order, with names of every sort: text, UTF-8, no UTF-8, some that fill their area.
std::string MixedEvent(std::mt19937& random)
{
    static const std::string PARTS[] = {"fan ", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\"\\\x1B", "\xFF"};
    std::string name;
    for (size_t count = random() % 32; count > 0; --count) {
        name += PARTS[random() % std::size(PARTS)];
    }
    if (random() % 3 == 0) {
        EventInfo fault{};
        fault.eventId = static_cast<uint16_t>(random());
        fault.osId = static_cast<uint32_t>(random());
        name.copy(fault.eventPara.buf, sizeof(fault.eventPara.buf));
        UDSInfoForCpp uds;
        for (size_t count = random() % 4; count > 0; --count) {
            const auto byte = static_cast<uint8_t>(random());
            uds.didInfo.push_back({static_cast<uint16_t>(random()), std::vector<uint8_t>(byte % 40, byte)});
        }
        return tools::ToLine(tools::ToJson(PM, {}, fault, uds));
    }
    dsmi_event device;
    auto* const bytes = reinterpret_cast<unsigned char*>(&device);
    std::generate_n(bytes, sizeof(device), [&random] { return static_cast<unsigned char>(random()); });
    if (random() % 4 != 0) {
        name.append(sizeof(device.eventName), '\0').copy(device.eventName, sizeof(device.eventName));
    }
    const auto family = random() % 2 == 0 ? ReportEvent::FAULT_EVENT : ReportEvent::SECURITY_EVENT;
    return tools::ToLine(tools::ToJson(PM, {}, family, device));
}

// Events without what a replay cannot repeat.
Words WithoutArrival(Words events)
{
    for (std::string& event : events) {
        const size_t arrival = event.find("\"arrival\":\"") + strlen("\"arrival\":\"");
        event.erase(arrival, strlen("2024-05-06T07:08:09.012345Z"));
    }
    return events;
}

TEST_F(Publish, ARecordingOfTenThousandMixedEventsReplaysIdentically)
{
    constexpr size_t COUNT = 10000;
    std::mt19937 random(1);
    Words expected;
    for (size_t i = 0; i < COUNT; ++i) {
        expected.push_back(MixedEvent(random));
    }
    const auto security = Serve(SECURITY, "--quiet --count 0");
    Words recording = expected;
    for (const std::string round : {"the events", "their recording"}) {
        const auto pm = Serve(PM, "--quiet --from -", CLI::detail::join(recording, "\n"));
        const auto monitor = Start(MONITOR, "--json --security --fault dp:/res/pm/fm");
        recording = Events(*monitor, COUNT);
        ASSERT_EQ(WithoutArrival(recording), WithoutArrival(expected)) << round;
        ExpectStop(*monitor, SIGINT);
    }
}

TEST_F(Publish, OnlyTheEventsOfOneResourceAreReplayedAndNoLoss)
{
    dsmi_event event{};
    std::string recording;
    for (const std::string resource : {"x:/res/a", "x:/res/b", ""}) {
        std::strcpy(event.eventName, resource.c_str());
        tools::Json line = tools::ToJson(resource, {}, ReportEvent::FAULT_EVENT, event);
        if (resource.empty()) {
            line.erase("resource");
            line.erase("arrival");
        }
        recording += tools::ToLine(line) + "\n";
    }
    event.eventId = ReportEvent::PM_LOST_EVENT_ID;
    tools::Json lost = tools::ToJson(tools::FAULT_REPORTING, {}, ReportEvent::FAULT_EVENT, event);
    lost["resource"] = "x:/res/b";
    recording += tools::ToLine(lost) + "\n";

    const struct {
        const char* options;
        Words names;
    } cases[] = {{"", {"x:/res/a", ""}}, {"--only x:/res/b", {"x:/res/b", ""}}, {"--only x:/res/c", {""}}};
    for (const auto& [options, names] : cases) {
        const auto publisher = Serve("x:/res/a", std::string("--from - ") + options, recording);
        const auto monitor = StartMonitor("--fault x:/res/a --count " + std::to_string(names.size()));
        ExpectEnd(*monitor);
        for (size_t i = 0; i < names.size(); ++i) {
            ExpectHolds(monitor->Output()[i], R"("eventName":")" + names[i] + "\"");
        }
        ExpectStop(*publisher, SIGTERM);
        const std::string passedOver = std::to_string(4 - names.size()) + " events of other resources passed over";
        EXPECT_TRUE(publisher->WaitForOutput(passedOver)) << publisher->Transcript();
    }
}

TEST_F(Publish, RecordsFollowEachOtherAtThePaceThatWasAskedFor)
{
    std::string recording;
    // The clock was set back between the second and the third.
    for (const char* const time : {"08:00:00.000000", "08:00:00.100000", "07:00:00.000000", "07:00:00.700000"}) {
        const auto arrival = tools::ParseUtcTime(std::string("2024-05-06T") + time + "Z");
        const tools::Json event = tools::ToJson("x:/res/a", *arrival, ReportEvent::FAULT_EVENT, {});
        recording += tools::ToLine(event) + "\n00\n";
    }
    const struct {
        const char* options;
        std::chrono::milliseconds atLeast;
    } cases[] = {{"--timing --from -", std::chrono::milliseconds(800)},
                 {"--timing 0.5 --from -", std::chrono::milliseconds(1600)},
                 {"--interval 50 --from -", std::chrono::milliseconds(350)},
                 {"--interval 50 --count 8", std::chrono::milliseconds(350)}};
    for (const auto& [options, atLeast] : cases) {
        const Clock::time_point start = Clock::now();
        const auto publisher = Start(PUBLISHER, std::string("--resource x:/res/a ") + options, recording);
        ExpectEnd(*publisher);
        EXPECT_GE(Clock::now() - start, atLeast) << options;
        EXPECT_TRUE(publisher->WaitForOutput("x:/res/a: 8 records with result 0")) << publisher->Transcript();
    }

    // An event bears the time at which it is sent, not the time before the pause.
    const auto publisher = Serve(PM, "--kind device --count 2 --interval 300 --serial 2147483647");
    const auto monitor = StartMonitor("--count 2");
    ExpectEnd(*monitor);
    std::vector<uint64_t> arised;
    for (const std::string& event : monitor->Output()) {
        arised.push_back(tools::Json::parse(event)["eventArisedTime"].get<uint64_t>());
    }
    EXPECT_GE(arised[1] - arised[0], 300000000U);
    ExpectHolds(monitor->Output()[1], R"("eventSerialNum":0,)");
}

TEST_F(Publish, InputMayPauseAnywhereAndHoldsCommentsAndLineEndsOfEverySort)
{
    const std::string path = std::filesystem::path(getenv("IAM_RUNTIME_DIR")) / "input";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const auto publisher = Start(PUBLISHER, "--resource x:/res/a --from " + path);
    ASSERT_TRUE(publisher->WaitForOutput("serving")) << publisher->Transcript();
    const int input = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(input, 0);
    const auto write = [&](const std::string& text) {
        ASSERT_EQ(::write(input, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        // Read, and nothing more is there.
        EXPECT_TRUE(Await([&] {
            int left = 0;
            return ioctl(input, FIONREAD, &left) == 0 && left == 0;
        }));
    };
    write("# a comment\n \t# another\n\n \r\n0001");
    write("02\r\n  00 01\t02 03 \r\n{\"kind\":");
    EXPECT_TRUE(publisher->WaitForOutput("line 6: record, 4 bytes: result 0")) << publisher->Transcript();
    // A stop signal while it waits for the rest of a line, or for one more.
    for (const auto& [serve, code] : {std::pair("", 130), {" --serve", 0}}) {
        const auto stopped = Start(PUBLISHER, "--resource x:/res/b --from " + path + serve);
        EXPECT_TRUE(stopped->WaitForOutput("serving")) << stopped->Transcript();
        ExpectStop(*stopped, SIGTERM, code);
    }
    const tools::Json event = tools::ToJson("x:/res/a", {}, EventInfo{}, UDSInfoForCpp{});
    write(tools::ToLine(event).substr(strlen("{\"kind\":")) + "\r\n00");
    close(input);  // in the middle of a line, which counts
    ExpectEnd(*publisher);
    const Words expected = {
        "serving x:/res/a",
        path + ", line 5: record, 3 bytes: result 0",
        path + ", line 6: record, 4 bytes: result 0",
        path + ", line 7: record, 26 bytes: result 0",
        path + ", line 8: record, 1 bytes: result 0",
        "x:/res/a: 4 records with result 0, 0 failed; 0 tries met a full pool",
    };
    EXPECT_EQ(publisher->Output(), expected);
}

TEST_F(Publish, WhetherThereIsAReaderIsSaidOnlyWhenItMatters)
{
    const auto alone = Start(PUBLISHER, "--resource x:/res/a --count 2 --name \x1B");
    ExpectEnd(*alone);
    EXPECT_TRUE(alone->WaitForOutput(R"(2/2 fault event 0x1001 "\u001b", 27 bytes: result 0)")) << alone->Transcript();
    EXPECT_TRUE(alone->WaitForError("2 of them found no reader of x:/res/a")) << alone->Transcript();

    const auto patient = Start(PUBLISHER, "--resource x:/res/a --wait --count 3 --interval 300");
    const auto monitor = Start(MONITOR, "--fault x:/res/a --follow --count 1");
    ExpectEnd(*patient);
    ExpectEnd(*monitor);
    EXPECT_EQ(patient->Transcript().find("reader"), std::string::npos) << patient->Transcript();

    const auto hasty = Start(PUBLISHER, "--resource x:/res/a --wait --serve --timeout 1");
    ExpectEnd(*hasty, 1);
    EXPECT_TRUE(hasty->WaitForError("nobody has opened x:/res/a within 1 s")) << hasty->Transcript();
}

}  // namespace
}  // namespace system_test

// Whole roads: real publishers and monitors in processes of their own, over the host platform.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "platform/host/fte/FaultRecordEncoder.h"
#include "report_event/EventRecord.h"
#include "tests/system/Process.h"

namespace system_test {
namespace {

using Json = nlohmann::json;
using Words = std::vector<std::string>;
using Running = std::unique_ptr<Process>;

constexpr const char* PM = "dp:/res/pm/fm";
constexpr const char* SECURITY = "dp:/res/iam/sec_event";

template <typename Bytes> std::string Hex(const Bytes& bytes) {
    std::string text;
    for (const unsigned char byte : bytes) {
        (text += "0123456789abcdef"[byte >> 4]) += "0123456789abcdef"[byte & 0xF];
    }
    return text;
}

// Lines for a publisher: raw records whose events are numbered from `first` on.
std::string NumberedRecords(ReportEvent::EventType family, int first, int count) {
    dsmi_event event{};
    event.eventId = 0x1234;
    std::fill(std::begin(event.eventName), std::end(event.eventName), 'n');  // no terminator
    event.reserved329[30] = 0x5A;
    std::string lines;
    for (event.eventSerialNum = first; event.eventSerialNum < first + count; ++event.eventSerialNum) {
        lines += Hex(ReportEvent::MakeRawRecord(family, true, event).bytes) + "\n";
    }
    return lines;
}

// The first `count` events of a monitor, and any more, once they are there.
std::vector<Json> Events(Process& monitor, size_t count) {
    EXPECT_TRUE(monitor.WaitUntil([&](const Words& lines) { return lines.size() >= count; })) << monitor.Transcript();
    std::vector<Json> events;
    for (const std::string& line : monitor.Output()) { events.push_back(Json::parse(line)); }
    events.resize(std::max(events.size(), count));
    return events;
}

// The events of a monitor from `from` on are numbered from `first` on.
void ExpectNumbered(Process& monitor, size_t from, int first, int count) {
    const std::vector<Json> events = Events(monitor, from + static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) { ASSERT_EQ(events[from + static_cast<size_t>(i)]["eventSerialNum"], first + i); }
}

void ExpectFields(const Json& event, const std::string& fields) {
    Json expected = event;
    expected.update(Json::parse(fields));
    EXPECT_EQ(event, expected);
}

void ExpectStop(Process& process, int signal) { EXPECT_EQ(process.Stop(signal), 0) << process.Transcript(); }
void ExpectEnd(Process& process, int code = 0) { EXPECT_EQ(process.Wait(), code) << process.Transcript(); }

class EndToEnd : public testing::Test {
protected:
    Running Start(const Words& command, const std::string& input = "") {
        // A sanitizer's exit code must not pass for one of a program's own.
        const Words environment = {"IAM_RUNTIME_DIR=" + directory_.Path(), "SLOG_LEVELS=2,3,16",
                                   "ASAN_OPTIONS=exitcode=99", "TSAN_OPTIONS=exitcode=99", "TZ=UTC"};
        return std::make_unique<Process>(command, environment, input);
    }
    // A publisher that serves `resource` already, publishes once a reader is there, and stays up.
    Running Serve(const std::string& resource, Words arguments, const std::string& input = "") {
        arguments.insert(arguments.begin(), {PUBLISHER, "--resource", resource, "--wait", "--serve"});
        auto publisher = Start(arguments, input);
        EXPECT_TRUE(publisher->WaitForOutput("serving " + resource)) << publisher->Transcript();
        return publisher;
    }
    // One that publishes numbered events.
    Running ServeNumbered(const std::string& resource, int first, int count) {
        const auto family = resource == SECURITY ? ReportEvent::SECURITY_EVENT : ReportEvent::FAULT_EVENT;
        return Serve(resource, {"--from", "-"}, NumberedRecords(family, first, count));
    }
    // A monitor that has opened `files` files.
    Running StartMonitor(Words arguments, ptrdiff_t files = 1) {
        arguments.insert(arguments.begin(), {MONITOR, "--json"});
        auto monitor = Start(arguments);
        EXPECT_TRUE(monitor->WaitForError("Open file success", files)) << monitor->Transcript();
        // Registered in full: from here on a loss is delivered, too.
        EXPECT_TRUE(files == 0 || monitor->WaitForError("receiving ")) << monitor->Transcript();
        return monitor;
    }

    RuntimeDirectory directory_;
};

TEST_F(EndToEnd, RecordsOfEveryKindAndSizeArriveWithAllTheirFields) {
    const std::string name(128, 'f');
    host_platform::fte::FaultEvent fault{258,       1,    50595078, 7,
                                         134810123, name, 3085,     {{0xF1A0, {1, 255}}, {0xF1A1, {}}}};
    // Filled up to the largest record there is.
    fault.dids[1].data.assign(3960 - EncodeRecord(fault, true).size(), 0xAB);
    const std::string largest = Hex(EncodeRecord(fault, true));
    const auto pm =
        Serve(PM, {"--from", "-"}, "000041\n" + largest + "\n" + NumberedRecords(ReportEvent::FAULT_EVENT, -5, 1));
    const auto security = ServeNumbered(SECURITY, 9, 1);
    const auto monitor = StartMonitor({"--fault", PM, "--security", "--count", "3"}, 2);
    ExpectEnd(*monitor);

    // The smallest record is no fault event: read, refused with its cause, and the next one is read.
    EXPECT_TRUE(monitor->WaitForError("FTEDeSerialize err ret="));
    EXPECT_TRUE(monitor->WaitForError("fault deserialize/callback failed, data read from dp:/res/pm/fm"));
    std::vector<Json> events = Events(*monitor, 3);
    ASSERT_EQ(events.size(), 3U);
    std::sort(events.begin(), events.end(), [](const Json& a, const Json& b) { return a["kind"] < b["kind"]; });
    ExpectFields(events[0], R"({"kind": "device", "eventId": 4660, "eventSerialNum": -5})");
    ExpectFields(events[2], R"({"kind": "security", "eventId": 4660, "eventSerialNum": 9})");
    ExpectFields(events[1], R"({"kind": "fault", "eventId": 258, "assertion": 1, "nodeId": 50595078, "deviceId": 7, )"
                            R"("osId": 134810123, "udsId": 3085})");
    const Json dids = {{{"did", 0xF1A0}, {"data", "01ff"}}, {{"did", 0xF1A1}, {"data", Hex(fault.dids[1].data)}}};
    EXPECT_EQ(events[1]["dids"], dids);
    EXPECT_EQ(events[1].size(), 10U);  // and these
    for (const size_t i : {0, 1, 2}) {
        EXPECT_EQ(events[i]["arrival"].get<std::string>().size(), 27U);
        EXPECT_EQ(events[i]["eventName"], i == 1 ? name : std::string(288, 'n'));
        EXPECT_TRUE(i == 1 || events[i]["reserved"].get<std::string>().substr(90) == "5a");
    }
    ExpectStop(*pm, SIGINT);
    ExpectStop(*security, SIGTERM);
}

TEST_F(EndToEnd, AKilledProcessManagerIsReportedAndAnotherServiceIsReopened) {
    const auto pm = Serve(PM, {"--kind", "fault", "--did", "0xF190=0a0b"});
    auto security = ServeNumbered(SECURITY, 0, 2);
    const auto monitor = StartMonitor({"--fault", PM, "--security"}, 2);
    Events(*monitor, 3);

    EXPECT_EQ(pm->Stop(SIGKILL), 128 + SIGKILL);
    ExpectFields(Events(*monitor, 4)[3],
                 R"({"kind": "pm-lost", "eventId": 2349047808, "eventName": "process-manager", )"
                 R"("severity": 2, "assertion": 1, "deviceId": 65535})");
    EXPECT_EQ(security->Stop(SIGKILL), 128 + SIGKILL);
    security = ServeNumbered(SECURITY, 2, 2);
    ExpectNumbered(*monitor, 4, 2, 2);
    EXPECT_TRUE(monitor->WaitForError("Reconnect success. (file=dp:/res/iam/sec_event,fd="));
    ExpectStop(*monitor, SIGTERM);
    for (const std::string file : {PM, SECURITY}) {
        EXPECT_TRUE(monitor->WaitForError("StopSubscribeEvent: join thead of resfile=" + file + " success"));
    }
}

TEST_F(EndToEnd, AFullPoolIsReportedAndEverythingAcceptedIsDeliveredInOrder) {
    constexpr int COUNT = 2500;  // more than twice what the pool holds
    const auto monitor = StartMonitor({"--fault", "x:/res/stalled", "--follow"}, 0);
    const auto publisher = ServeNumbered("x:/res/stalled", 0, COUNT);
    Events(*monitor, 6);
    monitor->Signal(SIGSTOP);
    EXPECT_TRUE(publisher->WaitForError("0xF10209")) << publisher->Transcript();
    monitor->Signal(SIGCONT);
    ExpectNumbered(*monitor, 0, 0, COUNT);
    ExpectStop(*monitor, SIGINT);
    EXPECT_EQ(monitor->Output().size(), static_cast<size_t>(COUNT));
}

TEST_F(EndToEnd, RecordsAcceptedBeforeThePublisherEndsAreDeliveredFirst) {
    // Through a pipe, which is slower than the publisher and holds less than everything.
    const auto publisher = Start(
        {"sh", "-c", "cat | " TEST_EMULATOR " '" PUBLISHER "' --resource " + std::string(PM) + " --wait --from -"},
        NumberedRecords(ReportEvent::FAULT_EVENT, 1, 200));
    const auto monitor = StartMonitor({"--fault", PM, "--follow"});
    ExpectEnd(*publisher);
    ExpectNumbered(*monitor, 0, 1, 200);
    EXPECT_TRUE(monitor->WaitForError("FTEReport begin, eventId=0x8C03A000")) << monitor->Transcript();
    ExpectStop(*monitor, SIGINT);
}

TEST_F(EndToEnd, TheNewestReaderTakesTheStreamAndTheOlderStaysConnected) {
    const auto publisher = Serve(PM, {"--kind", "device", "--count", "1000", "--interval", "10"});
    const auto older = StartMonitor({"--fault", PM});
    Events(*older, 2);
    ExpectEnd(*StartMonitor({"--fault", PM, "--count", "5"}));
    const size_t taken = older->Output().size();
    // A third reader proves that time has passed in which the older one got nothing.
    ExpectEnd(*StartMonitor({"--fault", PM, "--count", "5"}));
    EXPECT_EQ(older->Output().size(), taken);
    ExpectStop(*publisher, SIGINT);
    EXPECT_EQ(Events(*older, taken + 1).back()["kind"], "pm-lost");
}

TEST_F(EndToEnd, AMonitorThatFollowsSurvivesEveryRestart) {
    const auto monitor = StartMonitor({"--fault", PM, "--follow"}, 0);
    for (const int round : {0, 1, 2}) {
        const size_t before = 2 * static_cast<size_t>(round);
        const auto pm = ServeNumbered(PM, round, 1);
        ExpectNumbered(*monitor, before, round, 1);
        EXPECT_TRUE(monitor->WaitForError("receiving ", round + 1)) << monitor->Transcript();
        pm->Stop(SIGKILL);
        EXPECT_EQ(Events(*monitor, before + 2).back()["kind"], "pm-lost");
    }
    ExpectStop(*monitor, SIGTERM);
}

TEST_F(EndToEnd, TheExamplesTalkToEachOther) {
    const auto publisher = Start({EXAMPLE_PUBLISHER});
    ExpectEnd(*StartMonitor({"--fault", PM, "--follow", "--count", "1"}));  // it serves by now
    const auto client = Start({EXAMPLE_CLIENT});
    EXPECT_TRUE(client->WaitForOutput("stopped")) << client->Transcript();
    ExpectStop(*client, SIGTERM);
}

TEST_F(EndToEnd, WrongUseEndsWithOneLineThatNamesTheCause) {
    const auto server = Serve(PM, {});
    const std::pair<Words, std::string> cases[] = {
        {{MONITOR, "--fault", "dp:/res/nobody"}, "dp:/res/nobody"},
        {{MONITOR, "--fault", "no-colon"}, "no-colon"},
        {{MONITOR, "--count", "x"}, "count"},
        {{PUBLISHER, "--resource", PM}, PM},  // served by another live process
        {{PUBLISHER, "--resource", "x:/res/y", "--from", "-"}, "line 1"},
        {{PUBLISHER, "--resource", "x:/res/y", "--severity", "256"}, "severity"},
        {{PUBLISHER, "--resource", "x:/res/" + std::string(300, 'n')}, "nnn"},
        {{PUBLISHER}, "resource"},
    };
    for (const auto& [command, cause] : cases) {
        const auto program = Start(command, "01zz\n");
        const int code = program->Wait();
        EXPECT_TRUE(code == 1 || code == 2) << code << "\n" << program->Transcript();
        const std::string start = std::filesystem::path(command[0]).filename().string() + ": ";
        const Words errors = program->Errors();
        EXPECT_EQ(
            std::count_if(errors.begin(), errors.end(), [&](const auto& line) { return line.rfind(start, 0) == 0; }), 1)
            << program->Transcript();
        EXPECT_NE(program->Transcript().find(cause), std::string::npos) << program->Transcript();
    }
    const auto help = Start({MONITOR, "--help"});
    ExpectEnd(*help);
    EXPECT_TRUE(help->WaitForOutput("current reader"));
}

TEST_F(EndToEnd, AMonitorWhoseOutputFailsEndsWithTheRightCode) {
    const auto publisher = Serve(PM, {"--kind", "device", "--count", "100000", "--interval", "5"});
    const auto piped = Start({"sh", "-c", TEST_EMULATOR " '" MONITOR "' | head -n 3; echo done"});
    EXPECT_TRUE(piped->WaitForOutput("done")) << piped->Transcript();
    ExpectEnd(*piped);
    EXPECT_EQ(piped->Transcript().find("report-event-monitor: "), std::string::npos) << piped->Transcript();
    const auto full = Start({"sh", "-c", "exec " TEST_EMULATOR " '" MONITOR "' --json > /dev/full"});
    ExpectEnd(*full, 1);
    EXPECT_TRUE(full->WaitForError("No space left on device"));
}

}  // namespace
}  // namespace system_test

// Whole roads: real publishers and monitors in processes of their own, over the host platform.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iterator>

#include "platform/host/fte/FaultRecordEncoder.h"
#include "tests/system/Programs.h"
#include "tools/Text.h"

namespace system_test {
namespace {

using EndToEnd = ProgramsTest;

std::string Hex(const std::vector<unsigned char>& bytes)
{
    return tools::ToHexadecimal(bytes.data(), bytes.size());
}

TEST_F(EndToEnd, RecordsOfEveryKindAndSizeArriveWithAllTheirFields)
{
    const std::string name(128, 'f');
    host_platform::fte::FaultEvent fault{258, 1, 50595078, 7, 134810123, name, 3085, {{1, {1, 255}}, {0xF1A1, {}}}};
    // Filled up to the largest record there is.
    fault.dids[1].data.assign(3960 - EncodeRecord(fault, true).size(), 0xAB);
    const std::string faults = "000041\n\n# a comment\n" + Hex(EncodeRecord(fault, true)) + "\n";
    const auto pm = Serve(PM, "--from -", faults + NumberedRecords(ReportEvent::FAULT_EVENT, -5, 1));
    const auto security =
        Serve(SECURITY,
              "--kind security --event-id 0x12345678 --severity 2 --assertion 0 --node-id 3 --device-id 4 --os-id 5 "
              "--serial 6 --notify-serial 7 --arised-time 8 --name \xC3\xA9");
    const auto monitor = StartMonitor("--fault dp:/res/pm/fm --security --count 3", 2);
    ExpectEnd(*monitor);

    // The smallest record is no fault event: read, refused with its cause, and the next one is read.
    EXPECT_TRUE(monitor->WaitForError("FTEDeSerialize err ret="));
    EXPECT_TRUE(monitor->WaitForError("fault deserialize/callback failed, data read from dp:/res/pm/fm"));
    Words lines = monitor->Output();
    std::sort(lines.begin(), lines.end());
    for (std::string& line : lines) {
        line.erase(line.find("arrival") + 10, 27);
    }
    const Words expected = {
        R"({"kind":"device","resource":"dp:/res/pm/fm","arrival":"","eventId":185207048,"eventName":")" +
            std::string(288, 'n') +
            R"(","severity":18,"assertion":19,"nodeId":15,"deviceId":3340,"osId":72,"eventSerialNum":-5,)"
            R"("notifySerialNum":454695192,"eventArisedTime":2820983053732684064,"reserved":"00010203040506070e1011)"
            R"(1c1d1e1f494a4b4c4d4e4f505152535455565758595a5b5c5d5e5f6061626364656667"})",
        R"({"kind":"fault","resource":"dp:/res/pm/fm","arrival":"","eventId":258,"eventName":")" + name +
            R"(","assertion":1,"nodeId":50595078,"deviceId":7,"osId":134810123,"udsId":3085,"dids":[)"
            R"({"did":1,"data":"01ff"},{"did":61857,"data":")" +
            Hex(fault.dids[1].data) + R"("}]})",
        R"({"kind":"security","resource":"dp:/res/iam/sec_event","arrival":"","eventId":305419896,"eventName":"é",)"
        R"("severity":2,"assertion":0,"nodeId":3,"deviceId":4,"osId":5,"eventSerialNum":6,"notifySerialNum":7,"eventArisedTime":8,"reserved":")" +
            std::string(92, '0') + R"("})"};
    EXPECT_EQ(lines, expected);
    ExpectStop(*pm, SIGINT);
    ExpectStop(*security, SIGTERM);
    EXPECT_TRUE(pm->WaitForOutput("dp:/res/pm/fm: 3 records with result 0")) << pm->Transcript();
    EXPECT_TRUE(security->WaitForOutput("1/1 security event 0x12345678 \"\xC3\xA9\", 362 bytes: result 0"));
}

TEST_F(EndToEnd, AKilledProcessManagerIsReportedAndAnotherServiceIsReopened)
{
    const auto pm = Serve(PM, "--uds-id 7 --did 0xF190=0a0b");
    auto security = ServeNumbered(SECURITY, 0, 2);
    const auto monitor = StartMonitor("--fault dp:/res/pm/fm --security", 2);
    EXPECT_TRUE(monitor->WaitForOutput(R"("udsId":7,"dids":[{"did":61840,"data":"0a0b"}])"));
    Events(*monitor, 3);

    EXPECT_EQ(pm->Stop(SIGKILL), 128 + SIGKILL);
    const std::string lost = Events(*monitor, 4)[3];
    ExpectHolds(lost, R"({"kind":"pm-lost","resource":"fault-reporting","arrival":")");
    ExpectHolds(lost, R"("eventId":2349047808,"eventName":"process-manager","severity":2,"assertion":1,)");
    ExpectHolds(lost, R"("deviceId":65535,)");
    EXPECT_EQ(security->Stop(SIGKILL), 128 + SIGKILL);
    security = ServeNumbered(SECURITY, 2, 2);
    ExpectNumbered(*monitor, 4, 2, 2);
    EXPECT_TRUE(monitor->WaitForError("Reconnect success. (file=dp:/res/iam/sec_event,fd="));
    ExpectStop(*monitor, SIGTERM);
}

TEST_F(EndToEnd, AMonitorThatFollowsSurvivesEveryRestartAndGetsWhatWasAcceptedBeforeTheEndFirst)
{
    const auto monitor = StartMonitor("--follow", 0);
    for (const int round : {0, 1, 2}) {
        const size_t before = 2 * static_cast<size_t>(round);
        const auto pm = ServeNumbered(PM, round, 1);
        ExpectNumbered(*monitor, before, round, 1);
        EXPECT_TRUE(monitor->WaitForError("receiving ", before / 2 + 1)) << monitor->Transcript();
        pm->Stop(SIGKILL);
        ExpectHolds(Events(*monitor, before + 2).back(), "pm-lost");
    }
    // Through a pipe, which is slower than the publisher and holds less than everything.
    const auto last = Shell("cat | " TEST_EMULATOR " '" PUBLISHER "' --resource dp:/res/pm/fm --wait --from -",
                            NumberedRecords(ReportEvent::FAULT_EVENT, 1, 200));
    ExpectEnd(*last);
    ExpectNumbered(*monitor, 6, 1, 200);
    // The publisher may be gone before the monitor is registered in full: the fourth loss need not be delivered.
    EXPECT_TRUE(monitor->WaitForError("FTEReport begin, eventId=0x8C03A000", 4)) << monitor->Transcript();
    ExpectStop(*monitor, SIGTERM);
}

// In local time, and in colour unless the user wants none.
TEST_F(EndToEnd, OnATerminalEventsStandInColumnsUnderAHeader)
{
    setenv("TZ", "XYZ-5", 1);
    const time_t shifted = time(nullptr) + 5 * 3600;
    char today[32];
    strftime(today, sizeof(today), "%Y-%m-%d", gmtime(&shifted));
    for (const std::string noColour : {"", "1"}) {
        setenv("NO_COLOR", noColour.c_str(), 1);
        const auto pm = Serve(PM, "--kind device --severity 2 --count 2 --arised-time 9");
        const auto terminal = Shell("script -qec \"" TEST_EMULATOR " '" MONITOR "' --count 2 2>&3\" /dev/null 3>&2");
        const Words lines = Events(*terminal, 3);
        ExpectEnd(*terminal);
        ExpectHolds(lines[0], std::string(today) + "      ARISED       KIND  ");
        const std::string row = " 9            device   0x1001       2   1     0/0/0      ";
        ExpectHolds(lines[1], row + "1 dp:/res/pm/fm \"test event\"");
        ExpectHolds(lines[2], row + "2 dp:/res/pm/fm \"test event\"");
        EXPECT_EQ(lines[1].rfind("\x1B[31m", 0) == 0, noColour.empty()) << lines[1];
    }
    for (const char* const name : {"TZ", "NO_COLOR"}) {
        unsetenv(name);
    }
}

TEST_F(EndToEnd, WrongUseEndsWithOneLineThatNamesTheCause)
{
    const auto server = Serve(PM);
    const std::string timeless = R"({"kind":"fault","arrival":"now","eventId":1,"eventName":"","assertion":1,)"
                                 R"("nodeId":0,"deviceId":0,"osId":0,"udsId":0,"dids":[]})";
    const struct {
        std::string program, arguments;
        int code;
        const char* cause;
        std::string input = "";
    } cases[] = {
        {MONITOR, "--fault dp:/res/nobody", 1, "dp:/res/nobody"},
        {MONITOR, "--fault no-colon", 2, "no-colon"},
        {MONITOR, "--fault a:/res/b --fault a:/res/b", 2, "'a:/res/b' is given twice"},
        {MONITOR, "--count 1x", 2, "count"},
        {MONITOR, "--count 0", 2, "count"},
        {PUBLISHER, "--resource dp:/res/pm/fm", 1, PM},  // served by another live process
        {PUBLISHER, "--resource x:/res/y --serve --from -", 1, "line 2: not a byte", "01\n01zz\n"},
        {PUBLISHER, "--resource x:/res/y --from -", 1, "3961 bytes", std::string(7922, '0')},
        {PUBLISHER, "--resource x:/res/y --from -", 1, "line 1: line too long", std::string(1000000, ' ')},
        {PUBLISHER, "--resource x:/res/y --from -", 1, "arrival: not a time", timeless},
        {PUBLISHER, "--resource x:/res/y --from /no/file", 1, "/no/file: No such file"},
        {PUBLISHER, "--print --from -", 2, "--from excludes --print"},
        {PUBLISHER, "--print --event-id 65536", 2, "eventId: 65536 is not a whole number from 0 to 65535"},
        {PUBLISHER, "--print --severity 1", 2, "a fault event: severity: there is no such field"},
        {PUBLISHER, "--print --kind device --did 1=00", 2, "a device event: dids: there is no such field"},
        {PUBLISHER, "--resource x:/res/y --from - --timing 0", 2, "'0' is not a number from 0.001 to 1000000"},
        {PUBLISHER, "--resource x:/res/y --wait --timeout 1000000001", 2, "not a number from 1 to 1000000000"},
        {PUBLISHER, "--resource x:/res/y --from /", 1, "/: Is a directory"},
        {PUBLISHER, "--resource x:/res/" + std::string(300, 'n'), 1, "nnn"},
        {PUBLISHER, "", 2, "resource"},
    };
    for (const auto& [path, arguments, code, cause, input] : cases) {
        const auto program = Start(path, arguments, input);
        ExpectEnd(*program, code);
        const std::string start = std::filesystem::path(path).filename().string() + ": ";
        Words own = program->Errors();
        const auto isOther = [&](const std::string& line) { return line.rfind(start, 0) != 0; };
        own.erase(std::remove_if(own.begin(), own.end(), isOther), own.end());
        ASSERT_EQ(own.size(), 1U) << program->Transcript();
        ExpectHolds(own[0], cause);
    }
}

TEST_F(EndToEnd, AProgramWhoseOutputFailsEndsWithTheRightCode)
{
    // Through a pipe that is closed while the monitor waits for room in it, or while nothing arrives.
    for (const bool busy : {true, false}) {
        const auto publisher =
            Serve(PM, "--kind device --severity 2 --node-id 3 --device-id 4 --os-id 5 --name \x1B --quiet --count " +
                          std::string(busy ? "100000" : "3"));
        const auto piped = Shell(TEST_EMULATOR " '" MONITOR "' | sh -c 'echo $$; kill -STOP $$; head -n 3'; echo done");
        ASSERT_TRUE(piped->WaitForOutput("")) << piped->Transcript();
        EXPECT_TRUE(!busy || publisher->WaitForError("0xF10209")) << publisher->Transcript();
        const int reader = std::stoi(piped->Output()[0]);
        EXPECT_TRUE(Await([&] { return kill(reader, SIGCONT), piped->Output().back() == "done"; }));
        ExpectEnd(*piped);
        EXPECT_TRUE(piped->WaitForOutput(" device   0x1001       2   1     3/4/5 ", 3)) << piped->Transcript();
        for (const char* const unwanted : {"report-event-monitor: ", "\x1B"}) {
            EXPECT_EQ(piped->Transcript().find(unwanted), std::string::npos) << piped->Transcript();
        }
        publisher->Stop(SIGINT);
        EXPECT_EQ(publisher->Output().size(), 2U) << publisher->Transcript();  // quiet but for the first and the last
    }
    const auto publisher = Serve(PM);
    for (const char* const program : {"'" MONITOR "' --json", "'" PUBLISHER "' --print"}) {
        const auto full = Shell(std::string("exec " TEST_EMULATOR " ") + program + " > /dev/full");
        ExpectEnd(*full, 1);
        EXPECT_TRUE(full->WaitForError("No space left on device"));
    }
    const auto closed = Shell(TEST_EMULATOR " '" PUBLISHER "' --print >&-");
    ExpectEnd(*closed, 1);
    EXPECT_TRUE(closed->WaitForError("standard output is closed"));
    const auto head = Shell("{ " TEST_EMULATOR " '" PUBLISHER "' --print --count 9999; echo $? >&2; } | head -n 1");
    ExpectEnd(*head);
    EXPECT_EQ(head->Errors(), Words{"0"});
}

}  // namespace
}  // namespace system_test

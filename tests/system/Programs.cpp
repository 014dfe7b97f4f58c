#include "tests/system/Programs.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <numeric>
#include <sstream>

#include "tools/Text.h"

namespace system_test {

std::string NumberedRecords(ReportEvent::EventType family, int first, int count)
{
    dsmi_event event;
    auto* const bytes = reinterpret_cast<unsigned char*>(&event);
    std::iota(bytes, bytes + sizeof(event), static_cast<unsigned char>(0));
    std::fill(std::begin(event.eventName), std::end(event.eventName), 'n');  // no terminator
    std::string lines;
    for (event.eventSerialNum = first; event.eventSerialNum < first + count; ++event.eventSerialNum) {
        const auto record = ReportEvent::MakeRawRecord(family, true, event);
        lines += tools::ToHexadecimal(record.bytes, sizeof(record.bytes)) + "\n";
    }
    return lines;
}

Words Events(Process& monitor, size_t count)
{
    EXPECT_TRUE(monitor.WaitForOutput("", count)) << monitor.Transcript();
    Words events = monitor.Output();
    events.resize(std::max(events.size(), count));
    return events;
}

void ExpectHolds(const std::string& line, const std::string& text)
{
    EXPECT_NE(line.find(text), line.npos) << line;
}

void ExpectNumbered(Process& monitor, size_t from, int first, size_t count)
{
    const Words events = Events(monitor, from + count);
    for (size_t i = 0; i < count; ++i) {
        ExpectHolds(events[from + i], "Num\":" + std::to_string(first++) + ",\"not");
    }
}

void ExpectStop(Process& process, int signal, int code)
{
    EXPECT_EQ(process.Stop(signal), code) << process.Transcript();
}

void ExpectEnd(Process& process, int code)
{
    EXPECT_EQ(process.Wait(), code) << process.Transcript();
}

Running Start(const std::string& program, const std::string& arguments, const std::string& input, Streams streams)
{
    std::istringstream words(arguments);
    Words command = {program};
    command.insert(command.end(), std::istream_iterator<std::string>(words), {});
    return std::make_unique<Process>(command, input, streams);
}

Running Shell(const std::string& script, const std::string& input)
{
    return std::make_unique<Process>(Words{"sh", "-c", script}, input);
}

Running Serve(const std::string& resource, const std::string& arguments, const std::string& input)
{
    auto publisher = Start(PUBLISHER, "--resource " + resource + " --wait --serve " + arguments, input);
    EXPECT_TRUE(publisher->WaitForOutput("serving " + resource)) << publisher->Transcript();
    return publisher;
}

Running ServeNumbered(const std::string& resource, int first, int count)
{
    const auto family = resource == SECURITY ? ReportEvent::SECURITY_EVENT : ReportEvent::FAULT_EVENT;
    return Serve(resource, "--from -", NumberedRecords(family, first, count));
}

Running StartMonitor(const std::string& arguments, size_t files)
{
    auto monitor = Start(MONITOR, "--json " + arguments);
    EXPECT_TRUE(monitor->WaitForError("Open file success", files)) << monitor->Transcript();
    // Registered in full: from here on a loss is delivered, too.
    EXPECT_TRUE(files == 0 || monitor->WaitForError("receiving ")) << monitor->Transcript();
    return monitor;
}

ProgramsTest::ProgramsTest()
{
    setenv("SLOG_LEVELS", "2,3,16", 1);
    // A sanitizer's exit code must not pass for one of a program's own.
    for (const char* options : {"ASAN_OPTIONS", "TSAN_OPTIONS"}) {
        setenv(options, "exitcode=99", 1);
    }
}

}  // namespace system_test

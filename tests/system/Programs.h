// The programs under test, started in the ways that the tests need, and what the tests expect of their lines.
#ifndef REPORT_EVENT_TESTS_SYSTEM_PROGRAMS_H
#define REPORT_EVENT_TESTS_SYSTEM_PROGRAMS_H

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <string>

#include "report_event/EventRecord.h"
#include "tests/system/Process.h"

namespace system_test {

using Running = std::unique_ptr<Process>;

constexpr const char* PM = "dp:/res/pm/fm";  // what a monitor reads if it is not told otherwise
constexpr const char* SECURITY = "dp:/res/iam/sec_event";

// Starts `program` with arguments that are separated by blanks.
Running Start(const std::string& program, const std::string& arguments = "", const std::string& input = "",
              Streams streams = {});
Running Shell(const std::string& script, const std::string& input = "");

// A publisher that serves `resource` already, publishes once a reader is there, and stays up.
Running Serve(const std::string& resource, const std::string& arguments = "", const std::string& input = "");
// One that publishes events that are numbered from `first` on.
Running ServeNumbered(const std::string& resource, int first, int count);

// A monitor that has opened `files` files.
Running StartMonitor(const std::string& arguments, size_t files = 1);

// Lines for a publisher: raw records whose events are numbered from `first` on. Every other byte tells its own place.
std::string NumberedRecords(ReportEvent::EventType family, int first, int count);

// The lines of a monitor, once there are `count`.
Words Events(Process& monitor, size_t count);

// The events of a monitor from `from` on are numbered from `first` on.
void ExpectNumbered(Process& monitor, size_t from, int first, size_t count);

void ExpectHolds(const std::string& line, const std::string& text);
void ExpectStop(Process& process, int signal, int code = 0);
void ExpectEnd(Process& process, int code = 0);

// Each test has a runtime directory of its own.
class ProgramsTest : public testing::Test {
protected:
    ProgramsTest();

    RuntimeDirectory directory_;
};

}  // namespace system_test

#endif  // REPORT_EVENT_TESTS_SYSTEM_PROGRAMS_H

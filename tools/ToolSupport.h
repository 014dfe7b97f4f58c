// What the programs share: one main function, stop signals as something to wait for, messages, names for result codes.
#ifndef REPORT_EVENT_TOOLS_TOOL_SUPPORT_H
#define REPORT_EVENT_TOOLS_TOOL_SUPPORT_H

#include <sys/eventfd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "tools/Output.h"

namespace tools {

constexpr int EXIT_RUNTIME_FAILURE = 1;
constexpr int EXIT_USAGE = 2;

constexpr uint64_t TIMEOUT_MAX = 1000000000;  // seconds: some thirty years

// Once raised, stays raised; its descriptor is readable from then on. Any thread.
class Flag {
public:
    Flag() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")
    {
    }
    void Raise()
    {
        // Fails only when the counter is at its end, and then the flag has long been raised.
        (void)eventfd_write(event_.Get(), 1);
    }
    int Descriptor() const
    {
        return event_.Get();
    }

private:
    FileDescriptor event_;
};

// SIGINT and SIGTERM as a descriptor. The constructor blocks both for the calling thread, so it runs before any other
// thread is started: those inherit the mask, and no callback is ever interrupted. From then on they are the way to end
// the process, and a message on standard error waits for room no longer than until one arrives. One for a process.
class StopSignals {
public:
    StopSignals();

    int Descriptor() const
    {
        return signals_;
    }
    // Waits for a stop signal, for at most `timeout`. Once one has arrived, every further call returns true at once.
    bool WaitFor(std::chrono::nanoseconds timeout) const;
    // Whether a SIGINT has arrived, as by Ctrl-C.
    bool AreInterrupt() const;

private:
    const int signals_;
};

// Adds an option that takes a whole number in decimal or, after 0x, in hexadecimal, from `least` to `most`.
CLI::Option* AddNumber(CLI::App& app, const std::string& name, uint64_t& value, uint64_t least, uint64_t most);

struct Program {
    const char* name;
    const char* version;
    const char* help;                           // what --help prints
    std::function<void(CLI::App&)> addOptions;  // and what judges them together, as the callback of the command line
    std::function<int()> run;                   // once they have been read; returns the exit code
};

// The whole of a main function: reads the command line, answers --help and --version, and reports whatever goes wrong
// in one line. Returns the exit code. Standard streams that are closed do not become other files, and SIGPIPE is
// ignored.
int RunProgram(int argc, char** argv, const Program& program);

// The exit code of a program that would end with `exitCode`, but for the error of its standard output, which this
// reports. That nobody reads any more is none.
int AfterOutput(int error, int exitCode);

// Writes `text` to standard output, however long that takes. Returns the exit code.
int PrintText(const std::string& text);

// Any thread. These two escape what could command a terminal.

// Writes one line "<program>: <message>" to standard error: something went wrong.
void Complain(const std::string& message);

// Writes one line to standard error: nothing is wrong, but whoever watches wants to know.
void Notify(const std::string& message);

// "0xF10209 (no block is free in the pool)".
std::string DescribeResult(int code);

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_TOOL_SUPPORT_H

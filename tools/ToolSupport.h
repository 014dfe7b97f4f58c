// What the two programs share: standard streams that are open, stop signals as something to wait for, one way to read a
// command line, names for result codes.
#ifndef REPORT_EVENT_TOOLS_TOOL_SUPPORT_H
#define REPORT_EVENT_TOOLS_TOOL_SUPPORT_H

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/FileDescriptor.h"
#include "tools/Output.h"

namespace tools {

constexpr int EXIT_RUNTIME_FAILURE = 1;
constexpr int EXIT_USAGE = 2;

// Once raised, stays raised; its descriptor is readable from then on. Any thread.
class Flag {
public:
    Flag();
    void Raise();
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
    // Waits for as long as it takes.
    void Wait() const;
    // Whether a SIGINT has arrived, as by Ctrl-C.
    bool AreInterrupt() const;

private:
    const int signals_;  // open to the end of the process: there may be something to say on the way out
};

// To be called first of all. Makes sure that no descriptor opened later becomes a standard stream. Throws
// std::runtime_error when standard output is closed. Also ignores SIGPIPE, so that a closed pipe is an error of the
// write that meets it.
void PrepareStandardStreams();

// Adds an option that takes a whole number in decimal or, after 0x, in hexadecimal, from `least` to `most`.
CLI::Option* AddNumber(CLI::App& app, const std::string& name, uint64_t& value, uint64_t least, uint64_t most,
                       const std::string& description);

// The number written in `text`, in decimal or, after 0x, in hexadecimal; nothing when it is not one.
std::optional<uint64_t> ParseNumber(const std::string& text);

// Reads the command line. Returns the exit code when the program is done with that: after --help and --version, and
// after an error, which it has reported in one line.
std::optional<int> ParseCommandLine(CLI::App& app, int argc, char** argv);

// Lines on standard output, one by one, so that whoever waits for a line sees it. What of a line could command a
// terminal is escaped. Used by one thread.
class StandardOutput {
public:
    // Waits for room until `giveUp` is readable (-1: for as long as it takes).
    explicit StandardOutput(int giveUp = -1) : output_(STDOUT_FILENO), giveUp_(giveUp)
    {
    }
    void PrintLine(const std::string& line);
    // The errno of the write that failed, 0 when none has.
    int Error() const
    {
        return output_.Error();
    }

private:
    Output output_;
    const int giveUp_;
};

// The exit code of a program that would end with `exitCode`, but for the error of its standard output, which this
// reports. That nobody reads any more is none.
int AfterOutput(int error, int exitCode);

// These two escape what could command a terminal.

// Writes one line "<program>: <message>" to standard error: something went wrong.
void Complain(const std::string& message);

// Writes one line to standard error: nothing is wrong, but whoever watches wants to know.
void Notify(const std::string& message);

// "0xF10209 (no block is free in the pool)".
std::string DescribeResult(int code);

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_TOOL_SUPPORT_H

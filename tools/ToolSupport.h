// What the two programs share: standard streams that are open, stop signals as something to wait for, one way to read a
// command line, names for result codes.
#ifndef REPORT_EVENT_TOOLS_TOOL_SUPPORT_H
#define REPORT_EVENT_TOOLS_TOOL_SUPPORT_H

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace tools {

constexpr int EXIT_RUNTIME_FAILURE = 1;
constexpr int EXIT_USAGE = 2;

// Owns one descriptor and closes it.
class FileDescriptor {
public:
    // Takes ownership of `fd`. Throws std::system_error with errno and `what` when it is negative.
    FileDescriptor(int fd, const char* what);
    ~FileDescriptor();
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int Get() const
    {
        return fd_;
    }

private:
    int fd_;
};

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
// thread is started: those inherit the mask, and no callback is ever interrupted.
class StopSignals {
public:
    StopSignals();

    int Descriptor() const
    {
        return signals_.Get();
    }
    // Waits for a stop signal, for at most `timeout`. Once one has arrived, every further call returns true at once.
    bool WaitFor(std::chrono::nanoseconds timeout) const;
    // Waits for as long as it takes.
    void Wait() const;

private:
    FileDescriptor signals_;
};

// Makes sure that no descriptor opened later becomes a standard stream. Throws std::runtime_error when standard output
// is closed. Also ignores SIGPIPE, so that a closed pipe is an error of the write that meets it.
void PrepareStandardStreams();

// Adds an option that takes a whole number in decimal or, after 0x, in hexadecimal, from `least` to `most`.
CLI::Option* AddNumber(CLI::App& app, const std::string& name, uint64_t& value, uint64_t least, uint64_t most,
                       const std::string& description);

// The number written in `text`, in decimal or, after 0x, in hexadecimal; nothing when it is not one.
std::optional<uint64_t> ParseNumber(const std::string& text);

// Reads the command line. Returns the exit code when the program is done with that: after --help and --version, and
// after an error, which it has reported in one line.
std::optional<int> ParseCommandLine(CLI::App& app, int argc, char** argv);

// Lines on standard output, flushed one by one, so that whoever waits for a line sees it. What of a line could command
// a terminal is escaped. Used by one thread.
class StandardOutput {
public:
    void PrintLine(const std::string& line);
    // Whether a line could not be written, which has been reported. Lines that nobody reads any more, because the pipe
    // was closed, are no failure.
    bool Failed() const
    {
        return failed_;
    }

private:
    bool over_ = false;
    bool failed_ = false;
};

// These two escape what could command a terminal.

// Writes one line "<program>: <message>" to standard error: something went wrong.
void Complain(const std::string& message);

// Writes one line to standard error: nothing is wrong, but whoever watches wants to know.
void Notify(const std::string& message);

// "0xF10209 (no block is free in the pool)".
std::string DescribeResult(int code);

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_TOOL_SUPPORT_H

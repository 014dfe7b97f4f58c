// A child process under test: started with its output on pipes, waited for by condition, killed at the end.
#ifndef REPORT_EVENT_TESTS_SYSTEM_PROCESS_H
#define REPORT_EVENT_TESTS_SYSTEM_PROCESS_H

#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace system_test {

constexpr std::chrono::seconds PATIENCE{30};  // far above anything that is expected to happen

// A private runtime directory, removed with its content. What is left in it at the end is part of the test's verdict.
class RuntimeDirectory {
public:
    RuntimeDirectory();
    ~RuntimeDirectory();
    RuntimeDirectory(RuntimeDirectory&&) = delete;
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

class Process {
public:
    using Environment = std::vector<std::string>;  // "NAME=value", added to this process's own
    using Lines = std::vector<std::string>;
    using Condition = std::function<bool(const Lines&)>;

    // Starts `command`. Its standard output and standard error are collected line by line, each in its own list;
    // `input` is what it reads.
    Process(const std::vector<std::string>& command, const Environment& environment, const std::string& input = "");
    ~Process();

    // Wait until `count` lines of the output (or of the error output) hold `text`; true when they came in time.
    bool WaitForOutput(const std::string& text, ptrdiff_t count = 1) { return WaitFor(output_, Holds(text, count)); }
    bool WaitForError(const std::string& text, ptrdiff_t count = 1) { return WaitFor(errors_, Holds(text, count)); }
    // Waits until `condition` holds for the output so far.
    bool WaitUntil(const Condition& condition) { return WaitFor(output_, condition); }

    void Signal(int signal) { kill(pid_, signal); }
    // Waits for the end; the exit code, or 128 plus the signal that ended it. -1 when it did not end in time.
    int Wait();
    int Stop(int signal) { return Signal(signal), Wait(); }

    Lines Output() const { return Copy(output_); }
    Lines Errors() const { return Copy(errors_); }
    std::string Transcript() const;  // both, for a failing test's message
    pid_t Pid() const { return pid_; }

private:
    static Condition Holds(const std::string& text, ptrdiff_t count);
    void Collect(int fd, Lines& lines);
    bool WaitFor(const Lines& lines, const Condition& condition);
    Lines Copy(const Lines& lines) const;

    pid_t pid_ = -1;
    bool reaped_ = false;
    int status_ = -1;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    int openStreams_ = 2;
    Lines output_, errors_;
    std::thread outputReader_, errorReader_;
};

}  // namespace system_test

#endif  // REPORT_EVENT_TESTS_SYSTEM_PROCESS_H

// A child process under test: started with its output on files, waited for by condition, killed at the end.
#ifndef REPORT_EVENT_TESTS_SYSTEM_PROCESS_H
#define REPORT_EVENT_TESTS_SYSTEM_PROCESS_H

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace system_test {

constexpr std::chrono::seconds PATIENCE{30};  // far above anything that is expected to happen

using Words = std::vector<std::string>;

// Whether `condition` has come to hold in time.
bool Await(const std::function<bool()>& condition);

// A private runtime directory for this process and its children, removed with its content.
class RuntimeDirectory {
public:
    RuntimeDirectory();
    ~RuntimeDirectory();
    RuntimeDirectory(RuntimeDirectory&&) = delete;

private:
    std::string path_;
};

// Descriptors that take the place of a process's output and error output; -1 for neither.
struct Streams {
    int output = -1;
    int errors = -1;
};

class Process {
public:
    // Starts `command`, which reads `input`.
    explicit Process(const Words& command, const std::string& input = "", Streams streams = {});
    Process(Process&&) = delete;
    ~Process();

    // The whole lines of its standard output, or of its standard error, so far.
    Words Output() const
    {
        return Lines(output_);
    }
    Words Errors() const
    {
        return Lines(errors_);
    }
    std::string Transcript() const;  // both, for a failing test's message

    // Wait until `count` lines of the output (or of the error output) hold `text`; true when they came in time.
    bool WaitForOutput(const std::string& text, size_t count = 1)
    {
        return WaitFor(output_, text, count);
    }
    bool WaitForError(const std::string& text, size_t count = 1)
    {
        return WaitFor(errors_, text, count);
    }

    pid_t Id() const
    {
        return pid_;
    }
    void Signal(int signal)
    {
        kill(pid_, signal);
    }
    // No thread of it runs any more on return, until SIGCONT.
    void Pause();
    bool HasEnded();
    // Waits for the end; the exit code, or 128 plus the signal that ended it. -1 when it did not end in time.
    int Wait();
    int Stop(int signal)
    {
        Signal(signal);
        return Wait();
    }

private:
    static Words Lines(int file);
    bool WaitFor(int file, const std::string& text, size_t count);

    const int output_, errors_;  // files in memory, so that nobody has to empty them
    pid_t pid_ = -1;
    int code_ = -1;  // once it has ended
};

}  // namespace system_test

#endif  // REPORT_EVENT_TESTS_SYSTEM_PROCESS_H

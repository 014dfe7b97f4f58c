#include "tools/ToolSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <system_error>

#include "report_event/ResultCodes.h"
#include "tools/Printable.h"

namespace tools {

namespace {

struct NamedResult {
    int code;
    const char* name;
};

constexpr NamedResult RESULTS[] = {
    {ReportEvent::RESULT_OPEN_FAILED, "resource file that cannot be opened"},
    {ReportEvent::RESULT_NULL_POINTER, "null pointer"},
    {ReportEvent::RESULT_WRONG_SIZE, "wrong size"},
    {ReportEvent::RESULT_BAD_NAME, "rejected, repeated or unknown resource name"},
    {ReportEvent::RESULT_SERVICE_FAILED, "service registration failed"},
    {ReportEvent::RESULT_POOL_FAILED, "pool registration failed"},
    {ReportEvent::RESULT_NO_BLOCK, "no block is free in the pool"},
    {ReportEvent::RESULT_WRITE_FAILED, "block write failed"},
    {ReportEvent::RESULT_ENQUEUE_FAILED, "enqueue failed"},
};

int stopDescriptor = -1;  // set once, before any other thread is started

// Not through stdio, which is stuck when standard error is.
void WriteError(const std::string& line)
{
    static Output standardError(STDERR_FILENO);
    standardError.Write(Printable(line) + '\n', stopDescriptor);
}

int OpenStopSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

// A null `timeout` waits for as long as it takes.
bool PollReadable(int fd, const timespec* timeout)
{
    pollfd waited{fd, POLLIN, 0};
    int ready = 0;
    do {
        ready = ppoll(&waited, 1, timeout, nullptr);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

}  // namespace

Flag::Flag() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")
{
}

void Flag::Raise()
{
    // Fails only when the counter is at its end, and then the flag has long been raised.
    (void)eventfd_write(event_.Get(), 1);
}

StopSignals::StopSignals() : signals_(OpenStopSignals())
{
    if (signals_ < 0) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    stopDescriptor = signals_;
}

// The signal is left in the queue: that is what keeps the descriptor readable.
bool StopSignals::WaitFor(std::chrono::nanoseconds timeout) const
{
    const auto seconds = std::chrono::floor<std::chrono::seconds>(timeout);
    const timespec limit{seconds.count(), (timeout - seconds).count()};
    return PollReadable(signals_, &limit);
}

void StopSignals::Wait() const
{
    PollReadable(signals_, nullptr);
}

bool StopSignals::AreInterrupt() const
{
    sigset_t pending;
    return sigpending(&pending) == 0 && sigismember(&pending, SIGINT) == 1;
}

void PrepareStandardStreams()
{
    const bool outputIsClosed = fcntl(STDOUT_FILENO, F_GETFD) < 0;
    for (int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        // The lowest free number is taken: `stream`, as those below it are open.
        if (fcntl(stream, F_GETFD) < 0 && open("/dev/null", O_RDWR) < 0) {
            throw std::system_error(errno, std::generic_category(), "/dev/null");
        }
    }
    std::signal(SIGPIPE, SIG_IGN);
    if (outputIsClosed) {
        throw std::runtime_error("standard output is closed");
    }
}

std::optional<uint64_t> ParseNumber(const std::string& text)
{
    const bool hexadecimal = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char* end = text.data() + text.size();
    uint64_t value = 0;
    const auto [stop, error] = std::from_chars(text.data() + (hexadecimal ? 2 : 0), end, value, hexadecimal ? 16 : 10);
    if (error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return value;
}

CLI::Option* AddNumber(CLI::App& app, const std::string& name, uint64_t& value, uint64_t least, uint64_t most,
                       const std::string& description)
{
    const auto read = [name, &value, least, most](const std::string& text) {
        const std::optional<uint64_t> number = ParseNumber(text);
        if (!number || *number < least || *number > most) {
            throw CLI::ValidationError(
                name, "'" + text + "' is not a number from " + std::to_string(least) + " to " + std::to_string(most));
        }
        value = *number;
    };
    return app.add_option_function<std::string>(name, read, description)->type_name("N");
}

std::optional<int> ParseCommandLine(CLI::App& app, int argc, char** argv)
{
    try {
        app.parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::Success& request) {
        app.exit(request);
        std::cout.flush();
        if (!std::cout) {
            Complain("writing standard output failed");
            return EXIT_RUNTIME_FAILURE;
        }
        return EXIT_SUCCESS;
    } catch (const CLI::ParseError& error) {
        Complain(std::string(error.what()) + " (--help lists the options)");
        return EXIT_USAGE;
    }
}

void StandardOutput::PrintLine(const std::string& line)
{
    output_.Write(Printable(line) + '\n', giveUp_);
}

int AfterOutput(int error, int exitCode)
{
    if (error == 0 || error == EPIPE) {
        return exitCode;
    }
    Complain("writing standard output: " + std::generic_category().message(error));
    return EXIT_RUNTIME_FAILURE;
}

void Complain(const std::string& message)
{
    WriteError(std::string(program_invocation_short_name) + ": " + message);
}

void Notify(const std::string& message)
{
    WriteError(message);
}

std::string DescribeResult(int code)
{
    char hex[16];
    std::snprintf(hex, sizeof(hex), "0x%X", static_cast<unsigned int>(code));
    for (const NamedResult& result : RESULTS) {
        if (result.code == code) {
            return std::string(hex) + " (" + result.name + ")";
        }
    }
    return hex;
}

}  // namespace tools

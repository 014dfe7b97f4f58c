#include "tools/ToolSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "report_event/ResultCodes.h"
#include "tools/Text.h"

namespace tools {

namespace {

constexpr std::pair<int, const char*> RESULTS[] = {
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
    static std::mutex mutex;
    static Output standardError(STDERR_FILENO);
    const std::lock_guard<std::mutex> lock(mutex);
    standardError.Write(Printable(line) + '\n', stopDescriptor);
}

int OpenStopSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    // Open to the end of the process: there may be something to say on the way out.
    static const FileDescriptor descriptor(signalfd(-1, &signals, SFD_CLOEXEC), "signalfd");
    stopDescriptor = descriptor.Get();
    return stopDescriptor;
}

// To be called first of all: makes sure that no descriptor opened later becomes a standard stream, and that a closed
// pipe is an error of the write that meets it.
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

}  // namespace

StopSignals::StopSignals() : signals_(OpenStopSignals())
{
}

// The signal is left in the queue: that is what keeps the descriptor readable.
bool StopSignals::WaitFor(std::chrono::nanoseconds timeout) const
{
    const auto seconds = std::chrono::floor<std::chrono::seconds>(timeout);
    const timespec limit{seconds.count(), (timeout - seconds).count()};
    pollfd waited{signals_, POLLIN, 0};
    while (ppoll(&waited, 1, &limit, nullptr) < 0 && errno == EINTR) {
    }
    return waited.revents != 0;
}

bool StopSignals::AreInterrupt() const
{
    sigset_t pending;
    return sigpending(&pending) == 0 && sigismember(&pending, SIGINT) == 1;
}

CLI::Option* AddNumber(CLI::App& app, const std::string& name, uint64_t& value, uint64_t least, uint64_t most)
{
    const auto read = [name, &value, least, most](const std::string& text) {
        const std::optional<uint64_t> number = ParseNumber(text);
        if (!number || *number < least || *number > most) {
            throw CLI::ValidationError(
                name, "'" + text + "' is not a number from " + std::to_string(least) + " to " + std::to_string(most));
        }
        value = *number;
    };
    return app.add_option_function<std::string>(name, read);
}

int RunProgram(int argc, char** argv, const Program& program)
{
    try {
        PrepareStandardStreams();
        CLI::App app("", program.name);
        app.set_version_flag("--version", program.version);
        program.addOptions(app);
        app.parse(argc, argv);
        return program.run();
    } catch (const CLI::CallForHelp&) {
        return PrintText(program.help);
    } catch (const CLI::CallForVersion&) {
        return PrintText(program.version + std::string("\n"));
    } catch (const CLI::ParseError& error) {
        Complain(std::string(error.what()) + " (--help lists the options)");
        return EXIT_USAGE;
    } catch (const std::exception& error) {
        Complain(error.what());
        return EXIT_RUNTIME_FAILURE;
    }
}

int AfterOutput(int error, int exitCode)
{
    if (error == 0 || error == EPIPE) {
        return exitCode;
    }
    Complain("writing standard output: " + std::generic_category().message(error));
    return EXIT_RUNTIME_FAILURE;
}

int PrintText(const std::string& text)
{
    Output output(STDOUT_FILENO);
    output.Write(text, -1);
    return AfterOutput(output.Error(), EXIT_SUCCESS);
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
    const std::string hex = Hex(static_cast<uint32_t>(code));
    for (const auto& [known, meaning] : RESULTS) {
        if (known == code) {
            return hex + " (" + meaning + ")";
        }
    }
    return hex;
}

}  // namespace tools

// slog on a development host: diagnostic lines on standard error, event-log lines in a file named by the environment.
//
// The settings are read once, when the library is loaded. Everything that lives at file scope is trivially
// destructible, so that logging works in any static initialiser and destructor of those who use it.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "platform/host/slog/ErrnoKeeper.h"
#include "platform/host/slog/HostLog.h"
#include "platform/host/slog/LineBudget.h"
#include "platform/host/slog/LineSink.h"
#include "platform/host/slog/LogLine.h"
#include "slog.h"

namespace host_platform::slog {
namespace {

constexpr int LEVEL_LIMIT = 64;  // levels 0 to 63 have a bit each
constexpr int FAILURE = 3;
constexpr uint64_t DEFAULT_LEVELS = uint64_t{1} << FAILURE;

void AppendOrigin(LogLine& line)
{
    char threadName[16] = {};
    prctl(PR_GET_NAME, threadName);
    line.Append("%.64s[%d/%s] ", program_invocation_short_name, static_cast<int>(getpid()), threadName);
}

LineSink standardError{STDERR_FILENO, LineSink::Owner::PROCESS};
LineBudget boundedLines;
std::atomic<bool> quiet{false};
std::atomic<SlogHostListener> listener{nullptr};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<SlogHostListener>::is_always_lock_free,
              "a signal handler logs too");

void WriteDiagnostic(int module, int level, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));
void WriteDiagnostic(int module, int level, const char* format, va_list arguments)
{
    LogLine line;
    if (quiet) {
        const SlogHostListener hear = listener;
        if (hear != nullptr) {
            line.AppendList(format, arguments);
            hear(line.Data());
        }
        return;
    }
    AppendOrigin(line);
    line.Append("level=%d module=%d: ", level, module);
    line.AppendList(format, arguments);
    standardError.Write(line);
}

void Complain(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Complain(const char* format, ...)
{
    LogLine line;
    AppendOrigin(line);
    va_list arguments;
    va_start(arguments, format);
    line.AppendList(format, arguments);
    va_end(arguments);
    standardError.Write(line);
}

// Decimal numbers below LEVEL_LIMIT with a comma between each two; the empty text names no level.
bool ParseLevels(const char* text, uint64_t& levels)
{
    levels = 0;
    if (*text == '\0') {
        return true;
    }
    for (;;) {
        int level = 0;
        const char* const number = text;
        for (; *text >= '0' && *text <= '9' && level < LEVEL_LIMIT; ++text) {
            level = level * 10 + (*text - '0');
        }
        if (text == number || level >= LEVEL_LIMIT) {
            return false;
        }
        levels |= uint64_t{1} << level;
        if (*text == '\0') {
            return true;
        }
        if (*text++ != ',') {
            return false;
        }
    }
}

const char* LevelsSetting()
{
    return secure_getenv("SLOG_LEVELS");
}

// Null when it is not set or empty.
const char* EventFileSetting()
{
    const char* const path = secure_getenv("SLOG_EVENT_FILE");
    return path == nullptr || *path == '\0' ? nullptr : path;
}

uint64_t LevelsFromEnvironment()
{
    const char* const text = LevelsSetting();
    uint64_t levels = DEFAULT_LEVELS;
    if (text != nullptr && !ParseLevels(text, levels)) {
        Complain("slog: SLOG_LEVELS='%.100s' is not a comma-separated list of levels 0 to %d; using 3", text,
                 LEVEL_LIMIT - 1);
        return DEFAULT_LEVELS;
    }
    return levels;
}

// Opens the event file, or returns -1 for none. A FIFO is opened for reading too: it needs no reader then, and never
// breaks.
int OpenEventFile()
{
    const ErrnoKeeper errnoKeeper;
    const char* const path = EventFileSetting();
    if (path == nullptr) {
        return -1;
    }
    struct stat status {};
    const bool isFifo = stat(path, &status) == 0 && S_ISFIFO(status.st_mode);
    const int fd = OpenDestination(path, isFifo ? O_RDWR : O_WRONLY | O_CREAT | O_APPEND);
    if (fd < 0) {
        const int error = errno;
        Complain("slog: SLOG_EVENT_FILE='%.400s' cannot be opened: %s; event-log lines go to standard error", path,
                 strerrordesc_np(error));
    }
    return fd;
}

const uint64_t enabledLevels = LevelsFromEnvironment();
LineSink eventFile{OpenEventFile(), LineSink::Owner::LIBRARY};
const bool asksForLines = LevelsSetting() != nullptr || EventFileSetting() != nullptr;

}  // namespace
}  // namespace host_platform::slog

using namespace host_platform::slog;

int CheckLogLevel(int /*module*/, int level)
{
    if (quiet) {
        return level == FAILURE && listener != nullptr ? 1 : 0;
    }
    return level >= 0 && level < LEVEL_LIMIT && (enabledLevels >> level & 1) != 0 ? 1 : 0;
}

void DlogInner(int module, int level, const char* format, ...)
{
    const ErrnoKeeper errnoKeeper;
    va_list arguments;
    va_start(arguments, format);
    WriteDiagnostic(module, level, format, arguments);
    va_end(arguments);
}

void SlogHostBounded(int module, int level, const char* format, ...)
{
    const ErrnoKeeper errnoKeeper;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (!boundedLines.Take(now)) {
        standardError.LeaveOut();
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    WriteDiagnostic(module, level, format, arguments);
    va_end(arguments);
}

void DlogEventInner(int module, const char* format, ...)
{
    if (quiet) {
        return;
    }
    const ErrnoKeeper errnoKeeper;
    LogLine line;
    AppendOrigin(line);
    line.Append("event module=0x%X: ", static_cast<unsigned int>(module));
    va_list arguments;
    va_start(arguments, format);
    line.AppendList(format, arguments);
    va_end(arguments);
    (eventFile.IsOpen() ? eventFile : standardError).Write(line);
}

void DlogFlush(void)
{
    // Every line was written when it was logged; what is left is the way to the disk.
    const ErrnoKeeper errnoKeeper;
    if (eventFile.IsOpen()) {
        eventFile.Sync();
    }
}

void SlogHostQuiet(SlogHostListener newListener)
{
    if (!asksForLines) {
        listener = newListener;
        quiet = true;
    }
}

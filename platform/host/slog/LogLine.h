// One log line, formatted into a buffer of its own: no allocation, no lock, so that a signal handler can build one.
#ifndef REPORT_EVENT_PLATFORM_HOST_SLOG_LOG_LINE_H
#define REPORT_EVENT_PLATFORM_HOST_SLOG_LOG_LINE_H

#include <cstdarg>
#include <cstddef>

namespace host_platform::slog {

// Text is appended until the buffer is full; what does not fit is cut and the line says so.
class LogLine {
public:
    void Append(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // glibc's vsnprintf neither allocates nor locks for integers, strings and widths below its internal buffer, which
    // is what the callers use; a floating-point or positional argument would not be safe in a signal handler.
    void AppendList(const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));

    // Makes the text exactly one line: trailing line feeds fold into the one that ends it, control characters inside
    // become '?'. The line tells how many were left out before it, unless none were; when the last one on its
    // destination is torn, it begins with the line feed that is missing there.
    void Finish(bool afterTornLine, unsigned int leftOut);

    const char* Data() const
    {
        return buffer_ + begin_;
    }
    size_t Size() const
    {
        return end_ - begin_;
    }

private:
    static constexpr size_t TEXT_BEGIN = 1;  // behind the line feed for a torn line
    static constexpr size_t TEXT_END = TEXT_BEGIN + 1015;
    static constexpr char CUT_MARK[] = "...[cut]";
    static constexpr char LEFT_OUT[] = " (%u lines left out before)";
    // Well below PIPE_BUF: one write to a pipe is never torn.
    static constexpr size_t CAPACITY = TEXT_END + sizeof(CUT_MARK) + sizeof(LEFT_OUT) + sizeof("4294967295");

    char buffer_[CAPACITY] = {'\n'};
    size_t begin_ = TEXT_BEGIN;
    size_t end_ = TEXT_BEGIN;
    bool cut_ = false;
};

}  // namespace host_platform::slog

#endif  // REPORT_EVENT_PLATFORM_HOST_SLOG_LOG_LINE_H

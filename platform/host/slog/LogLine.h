// One log line, formatted into a buffer of its own: no allocation, no lock, so that a signal handler can build one.
#ifndef REPORT_EVENT_PLATFORM_HOST_SLOG_LOG_LINE_H
#define REPORT_EVENT_PLATFORM_HOST_SLOG_LOG_LINE_H

#include <cstdarg>
#include <cstddef>

namespace host_platform::slog {

// Text is appended until the buffer is full; what does not fit is cut and the line says so. Finish makes the text
// exactly one line: trailing line feeds fold into the one that ends it, control characters inside become '?'.
class LogLine {
public:
    void Append(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // glibc's vsnprintf neither allocates nor locks for integers, strings and widths below its internal buffer, which
    // is what the callers use; a floating-point or positional argument would not be safe in a signal handler.
    void AppendList(const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));

    void Finish();

    const char* Data() const
    {
        return text_;
    }
    size_t Size() const
    {
        return size_;
    }

private:
    static constexpr size_t CAPACITY = 1024;  // well below PIPE_BUF: one write to a pipe is never torn
    static constexpr char CUT_MARK[] = "...[cut]";
    static constexpr size_t TEXT_LIMIT = CAPACITY - sizeof(CUT_MARK);  // leaves room for the mark and the line feed

    char text_[CAPACITY] = {};
    size_t size_ = 0;
    bool cut_ = false;
};

}  // namespace host_platform::slog

#endif  // REPORT_EVENT_PLATFORM_HOST_SLOG_LOG_LINE_H

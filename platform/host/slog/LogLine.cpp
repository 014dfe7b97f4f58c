#include "platform/host/slog/LogLine.h"

#include <cstdio>
#include <cstring>

namespace host_platform::slog {

void LogLine::Append(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    AppendList(format, arguments);
    va_end(arguments);
}

void LogLine::AppendList(const char* format, va_list arguments)
{
    // The terminator goes to the byte after the limit, which belongs to the mark.
    const size_t room = TEXT_END - end_;
    const int length = std::vsnprintf(buffer_ + end_, room + 1, format, arguments);
    if (length < 0) {
        cut_ = true;
    } else if (static_cast<size_t>(length) > room) {
        end_ = TEXT_END;
        cut_ = true;
    } else {
        end_ += static_cast<size_t>(length);
    }
}

void LogLine::Finish(bool afterTornLine, unsigned int leftOut)
{
    while (!cut_ && end_ > TEXT_BEGIN && buffer_[end_ - 1] == '\n') {
        --end_;
    }
    for (size_t i = TEXT_BEGIN; i < end_; ++i) {
        const auto byte = static_cast<unsigned char>(buffer_[i]);
        if (byte < 0x20 || byte == 0x7F) {
            buffer_[i] = '?';
        }
    }
    if (cut_) {
        std::memcpy(buffer_ + end_, CUT_MARK, sizeof(CUT_MARK) - 1);
        end_ += sizeof(CUT_MARK) - 1;
    }
    if (leftOut != 0) {
        end_ += static_cast<size_t>(std::snprintf(buffer_ + end_, CAPACITY - end_, LEFT_OUT, leftOut));
    }
    buffer_[end_++] = '\n';
    if (afterTornLine) {
        begin_ = 0;
    }
}

}  // namespace host_platform::slog

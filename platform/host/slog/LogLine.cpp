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
    const size_t room = TEXT_LIMIT - size_;
    const int length = std::vsnprintf(text_ + size_, room + 1, format, arguments);
    if (length < 0) {
        cut_ = true;
    } else if (static_cast<size_t>(length) > room) {
        size_ = TEXT_LIMIT;
        cut_ = true;
    } else {
        size_ += static_cast<size_t>(length);
    }
}

void LogLine::Finish()
{
    while (!cut_ && size_ > 0 && text_[size_ - 1] == '\n') {
        --size_;
    }
    for (size_t i = 0; i < size_; ++i) {
        const auto byte = static_cast<unsigned char>(text_[i]);
        if (byte < 0x20 || byte == 0x7F) {
            text_[i] = '?';
        }
    }
    if (cut_) {
        std::memcpy(text_ + size_, CUT_MARK, sizeof(CUT_MARK) - 1);
        size_ += sizeof(CUT_MARK) - 1;
    }
    text_[size_++] = '\n';
}

}  // namespace host_platform::slog

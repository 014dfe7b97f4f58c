#include "tools/EventPrinter.h"

#include <utility>

namespace tools {

EventPrinter::EventPrinter(int fd, TextStyle style, bool header, uint64_t limit)
    : style_(style), output_(fd), headerIsDue_(header), remaining_(limit)
{
}

void EventPrinter::Print(const Event& event)
{
    std::string line = Describe(style_, event) + '\n';
    const std::lock_guard<std::mutex> lock(mutex_);
    if (remaining_ == 0) {
        return;
    }
    if (std::exchange(headerIsDue_, false)) {
        line.insert(0, ColumnHeader() + '\n');
    }
    if (!output_.Write(line, stopped_.Descriptor())) {
        ended_.Raise();
        return;
    }
    if (remaining_ != UNLIMITED && --remaining_ == 0) {
        ended_.Raise();
    }
}

int EventPrinter::WriteError() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return output_.Error();
}

}  // namespace tools

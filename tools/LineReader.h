// Reads lines of bounded length from a descriptor, and can be called off while it waits.
#ifndef REPORT_EVENT_TOOLS_LINE_READER_H
#define REPORT_EVENT_TOOLS_LINE_READER_H

#include <cstddef>
#include <optional>
#include <string>

#include "tools/ToolSupport.h"

namespace tools {

// Used by one thread.
class LineReader {
public:
    // Reads `path`, or standard input when it is "-". Throws std::system_error when it cannot be opened. A FIFO without
    // a writer is opened at once, and waited for when it is read.
    explicit LineReader(const std::string& path);

    // The next line without its line feed; nothing at the end of the input or once a stop signal has arrived. Throws
    // std::runtime_error when the input cannot be read or a line is too long.
    std::optional<std::string> Next(const StopSignals& signals);

    // "records.txt, line 3: " for messages about that line.
    std::string Position() const;

    static constexpr size_t LINE_LENGTH_MAX = 65536;  // twice what the longest event takes

private:
    std::optional<std::string> TakeLine(size_t length, size_t taken);
    bool WaitForInput(const StopSignals& signals) const;
    bool ReadMore();

    const std::string name_;
    const FileDescriptor input_;
    std::string buffer_;  // read and not yet returned
    size_t lineNumber_ = 0;
};

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_LINE_READER_H

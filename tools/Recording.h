// What report-event-publish --from reads: a record in hexadecimal, or an event in the form that report-event-monitor
// --json prints, on each line. Can be called off while it waits for input.
#ifndef REPORT_EVENT_TOOLS_RECORDING_H
#define REPORT_EVENT_TOOLS_RECORDING_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/Output.h"
#include "tools/Records.h"
#include "tools/ToolSupport.h"

namespace tools {

struct RecordedRecord {
    Record record;
    std::optional<SystemTime> arrival;  // of an event that tells it
};

// Used by one thread.
class Recording {
public:
    // Reads `path`, or standard input when it is "-". Of the events, takes those of the resource `only`, and those that
    // name none. Throws std::system_error when the file cannot be opened. A FIFO without a writer is opened at once,
    // and waited for when it is read.
    Recording(const std::string& path, std::string only);

    // The next record; nothing at the end or once a stop signal has arrived. Throws std::runtime_error when the input
    // cannot be read, and, with the place and the cause, for a line that is no record.
    std::optional<RecordedRecord> Next(const StopSignals& signals);

    // "records.txt, line 3: " for messages about the record that Next returned last.
    std::string Position() const;

    // How many events of other resources, and losses of process managers, were passed over.
    uint64_t PassedOver() const
    {
        return passedOver_;
    }

    static constexpr size_t LINE_LENGTH_MAX = 65536;  // twice what the longest event takes

private:
    std::optional<std::string> NextLine(const StopSignals& signals);
    bool ReadMore(const StopSignals& signals);
    std::optional<RecordedRecord> Parse(const std::string& line);

    const std::string name_;
    const FileDescriptor input_;
    const std::string only_;
    std::string buffer_;  // read and not yet taken
    size_t lineNumber_ = 0;
    uint64_t passedOver_ = 0;
};

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_RECORDING_H

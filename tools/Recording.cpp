#include "tools/Recording.h"

#include <stdexcept>
#include <utility>

#include "report_event/EventRecord.h"
#include "tools/EventJson.h"
#include "tools/Hexadecimal.h"

namespace tools {

Recording::Recording(const std::string& path, std::string only) : lines_(path), only_(std::move(only))
{
}

std::optional<RecordedRecord> Recording::Next(const StopSignals& signals)
{
    while (const std::optional<std::string> line = lines_.Next(signals)) {
        try {
            if (std::optional<RecordedRecord> record = Parse(*line)) {
                return record;
            }
        } catch (const std::logic_error& error) {
            throw std::runtime_error(Position() + error.what());
        }
    }
    return std::nullopt;
}

// Nothing when the line is to be passed over.
std::optional<RecordedRecord> Recording::Parse(const std::string& line)
{
    const size_t start = line.find_first_not_of(" \t\r");
    if (start == std::string::npos || line[start] == '#') {
        return std::nullopt;
    }
    if (line[start] != '{') {
        Record record = ParseHexadecimal(line);
        if (record.size() > ReportEvent::RECORD_SIZE_MAX) {
            throw std::invalid_argument("a record of " + std::to_string(record.size()) + " bytes; at most " +
                                        std::to_string(ReportEvent::RECORD_SIZE_MAX) + " can be published");
        }
        return RecordedRecord{std::move(record), std::nullopt};
    }
    const StoredEvent event = ParseEvent(line);
    if (event.kind == EventKind::PmLost || (!event.resource.empty() && event.resource != only_)) {
        ++passedOver_;
        return std::nullopt;
    }
    return RecordedRecord{MakeRecord(event, false), event.arrival};
}

}  // namespace tools

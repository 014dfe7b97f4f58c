#include "tools/Recording.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "report_event/EventRecord.h"

namespace tools {

namespace {

int OpenInput(const std::string& path)
{
    if (path == "-") {
        return fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
    }
    return open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
}

}  // namespace

Recording::Recording(const std::string& path, std::string only)
    : name_(path == "-" ? "standard input" : path), input_(OpenInput(path), name_.c_str()), only_(std::move(only))
{
}

std::optional<RecordedRecord> Recording::Next(const StopSignals& signals)
{
    while (const std::optional<std::string> line = NextLine(signals)) {
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

std::optional<std::string> Recording::NextLine(const StopSignals& signals)
{
    size_t end = buffer_.find('\n');
    while (end == std::string::npos) {
        const size_t searched = buffer_.size();
        if (searched > LINE_LENGTH_MAX) {
            ++lineNumber_;
            throw std::runtime_error(Position() + "line too long");
        }
        if (!ReadMore(signals)) {
            return std::nullopt;
        }
        end = buffer_.find('\n', searched);
    }
    ++lineNumber_;
    std::string line = buffer_.substr(0, end);
    buffer_.erase(0, end + 1);
    return line;
}

std::string Recording::Position() const
{
    return name_ + ", line " + std::to_string(lineNumber_) + ": ";
}

// False at the end of the input, which ends the last line, too, and once a stop signal has arrived.
bool Recording::ReadMore(const StopSignals& signals)
{
    pollfd waited[] = {{input_.Get(), POLLIN, 0}, {signals.Descriptor(), POLLIN, 0}};
    while (poll(waited, 2, -1) < 0 && errno == EINTR) {
    }
    if (waited[1].revents != 0) {
        return false;
    }
    char piece[4096];
    const ssize_t count = read(input_.Get(), piece, sizeof(piece));
    if (count < 0 && errno != EAGAIN && errno != EINTR) {
        throw std::system_error(errno, std::generic_category(), name_);
    }
    if (count > 0) {
        buffer_.append(piece, static_cast<size_t>(count));
    } else if (count == 0 && !buffer_.empty()) {
        buffer_ += '\n';
        return true;
    }
    return count != 0;
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
    const Json event = Json::parse(line, nullptr, false);
    if (event.is_discarded()) {
        throw std::invalid_argument("not a JSON object");
    }
    const Json resource = event.value("resource", Json(only_));
    if (IsPmLost(event) || resource != only_) {
        ++passedOver_;
        return std::nullopt;
    }
    const Json arrival = event.value("arrival", Json());
    RecordedRecord record = {MakeRecord(event, false),
                             ParseUtcTime(arrival.is_string() ? arrival.get<std::string>() : "")};
    if (!arrival.is_null() && !record.arrival) {
        throw std::invalid_argument("arrival: not a time such as 2024-05-06T07:08:09.012345Z");
    }
    return record;
}

}  // namespace tools

#include "tools/LineReader.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

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

LineReader::LineReader(const std::string& path)
    : name_(path == "-" ? "standard input" : path), input_(OpenInput(path), name_.c_str())
{
}

std::optional<std::string> LineReader::Next(const StopSignals& signals)
{
    size_t searched = 0;
    for (;;) {
        const size_t end = buffer_.find('\n', searched);
        if (end != std::string::npos) {
            return TakeLine(end, end + 1);
        }
        searched = buffer_.size();
        if (searched > LINE_LENGTH_MAX) {
            ++lineNumber_;
            throw std::runtime_error(Position() + "line too long");
        }
        if (!WaitForInput(signals)) {
            return std::nullopt;
        }
        if (!ReadMore()) {
            return buffer_.empty() ? std::nullopt : TakeLine(searched, searched);
        }
    }
}

std::string LineReader::Position() const
{
    return name_ + ", line " + std::to_string(lineNumber_) + ": ";
}

std::optional<std::string> LineReader::TakeLine(size_t length, size_t taken)
{
    ++lineNumber_;
    std::string line = buffer_.substr(0, length);
    buffer_.erase(0, taken);
    return line;
}

bool LineReader::WaitForInput(const StopSignals& signals) const
{
    pollfd waited[] = {{input_.Get(), POLLIN, 0}, {signals.Descriptor(), POLLIN, 0}};
    while (poll(waited, 2, -1) < 0 && errno == EINTR) {
    }
    return waited[1].revents == 0;
}

// False at the end of the input.
bool LineReader::ReadMore()
{
    char piece[4096];
    const ssize_t count = read(input_.Get(), piece, sizeof(piece));
    if (count < 0 && errno != EAGAIN && errno != EINTR) {
        throw std::system_error(errno, std::generic_category(), name_);
    }
    if (count > 0) {
        buffer_.append(piece, static_cast<size_t>(count));
    }
    return count != 0;
}

}  // namespace tools

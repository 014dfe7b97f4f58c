#include "tools/EventFilter.h"

#include <algorithm>
#include <limits>
#include <optional>

#include "tools/ToolSupport.h"

namespace tools {

namespace {

std::pair<uint64_t, uint64_t> ParseRange(const std::string& text)
{
    const size_t dash = text.find('-');
    const std::optional<uint64_t> first = ParseNumber(text.substr(0, dash));
    const std::optional<uint64_t> last = dash == std::string::npos ? first : ParseNumber(text.substr(dash + 1));
    if (!first || !last || *first > *last || *last > std::numeric_limits<uint32_t>::max()) {
        throw CLI::ValidationError("--event-id", "'" + text + "' is neither a number nor a range such as 0x10-0x1F");
    }
    return {*first, *last};
}

}  // namespace

void EventFilter::AddTo(CLI::App& app)
{
    const auto addRanges = [this](const std::vector<std::string>& texts) {
        for (const std::string& text : texts) {
            ids_.push_back(ParseRange(text));
        }
    };
    app.add_option("--kind", kinds_)
        ->check(CLI::IsMember({"fault", "device", "security", PM_LOST}))
        ->allow_extra_args(false);
    app.add_option_function<std::vector<std::string>>("--event-id", addRanges)->allow_extra_args(false);
    AddNumber(app, "--severity", severity_, 0, std::numeric_limits<uint8_t>::max());
}

bool EventFilter::Passes(const Json& event) const
{
    const uint64_t id = event["eventId"].get<uint64_t>();
    const auto holdsId = [id](const auto& range) { return id >= range.first && id <= range.second; };
    return (kinds_.empty() || std::count(kinds_.begin(), kinds_.end(), event["kind"]) != 0) &&
           (ids_.empty() || std::any_of(ids_.begin(), ids_.end(), holdsId)) &&
           (severity_ == 0 || event.value("severity", uint64_t{0}) >= severity_);
}

}  // namespace tools

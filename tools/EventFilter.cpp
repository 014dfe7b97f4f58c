#include "tools/EventFilter.h"

#include <algorithm>
#include <limits>
#include <optional>

#include "tools/ToolSupport.h"

namespace tools {

void EventFilter::AddTo(CLI::App& app)
{
    app.add_option("--kind", kinds_, "Show only events of this kind; may be repeated")
        ->check(CLI::IsMember({"fault", "device", "security", "pm-lost"}))
        ->type_name("KIND")
        ->allow_extra_args(false)
        ->group("Filters");
    app.add_option_function<std::vector<std::string>>(
           "--event-id",
           [this](const std::vector<std::string>& texts) {
               for (const std::string& text : texts) {
                   ids_.push_back(ParseRange(text));
               }
           },
           "Show only events with this identifier, or from the first to the\n"
           "second; may be repeated")
        ->type_name("N[-N]")
        ->allow_extra_args(false)
        ->group("Filters");
    AddNumber(app, "--severity", severity_, 0, std::numeric_limits<uint8_t>::max(),
              "Show only events of at least this severity; a fault has none")
        ->group("Filters");
}

bool EventFilter::Passes(const Event& event) const
{
    if (!kinds_.empty() && std::find(kinds_.begin(), kinds_.end(), KindName(event.kind)) == kinds_.end()) {
        return false;
    }
    const auto holdsId = [&event](const Range& range) { return event.Id() >= range.first && event.Id() <= range.last; };
    if (!ids_.empty() && std::none_of(ids_.begin(), ids_.end(), holdsId)) {
        return false;
    }
    return severity_ == 0 || (event.device != nullptr && event.device->severity >= severity_);
}

EventFilter::Range EventFilter::ParseRange(const std::string& text)
{
    const size_t dash = text.find('-');
    const std::optional<uint64_t> first = ParseNumber(text.substr(0, dash));
    const std::optional<uint64_t> last = dash == std::string::npos ? first : ParseNumber(text.substr(dash + 1));
    if (!first || !last || *first > *last || *last > std::numeric_limits<uint32_t>::max()) {
        throw CLI::ValidationError("--event-id", "'" + text + "' is neither a number nor a range such as 0x10-0x1F");
    }
    return {*first, *last};
}

}  // namespace tools

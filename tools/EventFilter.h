// Which events a program shows, by their kind, identifier and severity.
#ifndef REPORT_EVENT_TOOLS_EVENT_FILTER_H
#define REPORT_EVENT_TOOLS_EVENT_FILTER_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/Event.h"

namespace tools {

// Set up once; then any thread.
class EventFilter {
public:
    // The values stay in this object, which outlives `app`.
    void AddTo(CLI::App& app);

    bool Passes(const Event& event) const;

private:
    struct Range {
        uint64_t first;
        uint64_t last;
    };

    static Range ParseRange(const std::string& text);

    std::vector<std::string> kinds_;  // empty: all
    std::vector<Range> ids_;          // empty: all
    uint64_t severity_ = 0;
};

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_EVENT_FILTER_H

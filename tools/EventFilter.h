// Which events a program shows, by their kind, identifier and severity.
#ifndef REPORT_EVENT_TOOLS_EVENT_FILTER_H
#define REPORT_EVENT_TOOLS_EVENT_FILTER_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tools/EventJson.h"

namespace tools {

// Set up once; then any thread.
class EventFilter {
public:
    // The values stay in this object, which outlives `app`.
    void AddTo(CLI::App& app);

    bool Passes(const Json& event) const;

private:
    std::vector<std::string> kinds_;                  // empty: all
    std::vector<std::pair<uint64_t, uint64_t>> ids_;  // from the first to the second; empty: all
    uint64_t severity_ = 0;
};

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_EVENT_FILTER_H

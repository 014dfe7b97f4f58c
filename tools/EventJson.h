// The JSON form of events, which recordings are made of, written and read. It is a stable format: docs/json.md
// describes it and says what may change. Pure functions, any thread.
#ifndef REPORT_EVENT_TOOLS_EVENT_JSON_H
#define REPORT_EVENT_TOOLS_EVENT_JSON_H

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "tools/Event.h"

namespace tools {

using Json = nlohmann::ordered_json;

// The object of an event, its keys in the order of the format. Further keys may be added behind them.
Json ToJson(const Event& event);

// On one line, without a line feed: valid UTF-8 without control characters, whatever bytes the texts hold.
std::string ToLine(const Json& object);

// The bytes of a device event that have no field of their own, in the order of their offsets.
std::string ReservedBytes(const dsmi_event& event);

// Reads what ToLine has written for an event. Keys that the format does not know are passed over; a key that is missing
// or does not hold what it should is an error, as is a value that does not fit. Throws std::invalid_argument with the
// cause.
StoredEvent ParseEvent(const std::string& line);

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_EVENT_JSON_H

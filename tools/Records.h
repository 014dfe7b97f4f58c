// The records that report-event-publish sends: made from the JSON form of an event, or from options.
#ifndef REPORT_EVENT_TOOLS_RECORDS_H
#define REPORT_EVENT_TOOLS_RECORDS_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/EventJson.h"

namespace tools {

using Record = std::vector<unsigned char>;

// The record that carries `event`. Keys that the format does not know are passed over; a key that is missing or does
// not hold what it should is an error, as is a value that does not fit into a record. Throws std::logic_error with the
// cause.
Record MakeRecord(const Json& event, bool forceLog);

// The options that describe a record.
class RecordOptions {
public:
    // The values stay in this object, which outlives `app`. Returns the options, for excluding them.
    std::vector<CLI::Option*> AddTo(CLI::App& app);

    // To be called before what follows. Throws CLI::ValidationError that names what is at fault: an option does not
    // apply to the kind of record, or its value does not fit into one.
    void Check();

    // The record number `index`, counted from 0; with the serial number that many above --serial, and the time of now.
    Record Make(uint64_t index) const;

    // "fault event 0x1001 "test event"".
    const std::string& Description() const
    {
        return description_;
    }

private:
    std::string kind_ = "fault";
    bool forceLog_ = false;
    Json given_ = Json::object();  // by key of the format, what options say
    Json event_;                   // number 0
    std::string description_;
};

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_RECORDS_H

// The records that report-event-publish sends, made from events, and the events that its options describe.
#ifndef REPORT_EVENT_TOOLS_RECORDS_H
#define REPORT_EVENT_TOOLS_RECORDS_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/Event.h"

namespace tools {

using Record = std::vector<unsigned char>;

// The record that carries `event`, which is not a pm-lost. Throws std::logic_error with the cause when there is none:
// the event does not fit, or its name is one that a fault cannot have.
Record MakeRecord(const StoredEvent& event, bool forceLog);

// The options that describe a record.
class RecordOptions {
public:
    // The values stay in this object, which outlives `app`. Returns the options, for excluding them.
    std::vector<CLI::Option*> AddTo(CLI::App& app);

    // Throws CLI::ValidationError that names the option at fault: it does not apply to the kind of record, or its value
    // does not fit into one.
    void Check() const;

    // The record number `index`, counted from 0; with the serial number that many above --serial.
    Record Make(uint64_t index) const;

    // "fault event 0x1001 "test event"".
    std::string Description() const;

private:
    // The numbers of a record. Their order is that of the table in the source file.
    enum Field {
        EVENT_ID,
        SEVERITY,
        ASSERTION,
        NODE_ID,
        DEVICE_ID,
        OS_ID,
        SERIAL,
        NOTIFY_SERIAL,
        ARISED_TIME,
        UDS_ID,
        FIELD_COUNT
    };

    bool IsFault() const
    {
        return kind_ == "fault";
    }
    void FillFault(StoredEvent& event) const;
    void FillDevice(StoredEvent& event, uint64_t index) const;

    std::string kind_ = "fault";
    std::string name_ = "test event";
    bool forceLog_ = false;
    uint64_t values_[FIELD_COUNT] = {};
    CLI::Option* given_[FIELD_COUNT] = {};
    std::vector<DidInfoForCpp> dids_;
};

}  // namespace tools

#endif  // REPORT_EVENT_TOOLS_RECORDS_H

// The wire format of an event record: what a publisher hands to ReportEventClient::ReportEvent and a subscriber reads
// back. Pure: constants and functions on bytes, no I/O, no state, safe on any thread.
//
//   offset  width       field
//   0       1 byte      header: low nibble the payload format, high nibble the event family
//   1       1 byte      forceLog: 0 is false, any other value true
//   2       length - 2  payload
//
// A record carries no length of its own: its length is that of the read that delivered it.
#ifndef REPORT_EVENT_EVENT_RECORD_H
#define REPORT_EVENT_EVENT_RECORD_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "report_event/EventTypes.h"

namespace ReportEvent {

// The event family; the high nibble of a record's header byte.
enum EventType : int32_t {
    FAULT_EVENT = 0,
    SECURITY_EVENT = 1,
};

// The three header bytes that a subscriber accepts.
constexpr uint8_t RECORD_HEADER_FTE_FAULT = 0x00;     // payload: serialized fault event, 1 byte or more
constexpr uint8_t RECORD_HEADER_RAW_FAULT = 0x01;     // payload: dsmi_event, 360 bytes
constexpr uint8_t RECORD_HEADER_RAW_SECURITY = 0x11;  // payload: dsmi_event, 360 bytes

constexpr size_t RECORD_PREFIX_SIZE = 2;  // header and forceLog
constexpr size_t RECORD_SIZE_MIN = 3;
constexpr size_t RECORD_SIZE_MAX = 3960;
constexpr size_t RAW_RECORD_SIZE = RECORD_PREFIX_SIZE + sizeof(dsmi_event);

constexpr bool IsValidRecordHeader(uint8_t header)
{
    return header == RECORD_HEADER_FTE_FAULT || header == RECORD_HEADER_RAW_FAULT ||
           header == RECORD_HEADER_RAW_SECURITY;
}

constexpr EventType RecordFamily(uint8_t header)
{
    return static_cast<EventType>(header >> 4);
}

// A raw device-management record, ready to be published: 362 bytes.
struct RawRecord {
    unsigned char bytes[RAW_RECORD_SIZE];
};

// Makes the record that carries `event` in the given family.
inline RawRecord MakeRawRecord(EventType family, bool forceLog, const dsmi_event& event)
{
    RawRecord record;
    record.bytes[0] = family == SECURITY_EVENT ? RECORD_HEADER_RAW_SECURITY : RECORD_HEADER_RAW_FAULT;
    record.bytes[1] = forceLog ? 1 : 0;
    std::memcpy(record.bytes + RECORD_PREFIX_SIZE, &event, sizeof(event));
    return record;
}

}  // namespace ReportEvent

#endif  // REPORT_EVENT_EVENT_RECORD_H

// Frozen at version 1.0, without comments: changes only together with the library's SOVERSION.
#ifndef REPORT_EVENT_EVENT_RECORD_H
#define REPORT_EVENT_EVENT_RECORD_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "report_event/EventTypes.h"

namespace ReportEvent {

enum EventType : int32_t {
    FAULT_EVENT = 0,
    SECURITY_EVENT = 1,
};

constexpr uint8_t RECORD_HEADER_FTE_FAULT = 0x00;
constexpr uint8_t RECORD_HEADER_RAW_FAULT = 0x01;
constexpr uint8_t RECORD_HEADER_RAW_SECURITY = 0x11;

constexpr size_t RECORD_PREFIX_SIZE = 2;
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

struct RawRecord {
    unsigned char bytes[RAW_RECORD_SIZE];
};

inline RawRecord MakeRawRecord(EventType family, bool forceLog, const dsmi_event& event)
{
    RawRecord record;
    record.bytes[0] = family == SECURITY_EVENT ? RECORD_HEADER_RAW_SECURITY : RECORD_HEADER_RAW_FAULT;
    record.bytes[1] = forceLog ? 1 : 0;
    std::memcpy(record.bytes + RECORD_PREFIX_SIZE, &event, sizeof(event));
    return record;
}

}  // namespace ReportEvent

#endif

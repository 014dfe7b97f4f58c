// The serialized form of a fault event: what EncodePayload writes and FTEDeSerialize reads.
//
// All integers are little-endian; nothing is aligned. The form is canonical: one event has one serialized form, so
// whatever decodes is encoded to the same bytes again.
//
//   offset  width  field
//   0       4      magic "FTER"
//   4       1      version, 1
//   5       1      assertion
//   6       2      eventId
//   8       4      nodeId
//   12      4      osId
//   16      1      deviceId
//   17      1      bytes of the name, 0 to 128
//   18      2      udsId
//   20      2      number of DID records
//   22      2      length of the whole, these bytes included
//   24      ...    the name, no NUL in it and none after it
//   then for each DID record: did (2), bytes of data (2), data
#ifndef REPORT_EVENT_PLATFORM_HOST_FTE_FAULT_RECORD_FORMAT_H
#define REPORT_EVENT_PLATFORM_HOST_FTE_FAULT_RECORD_FORMAT_H

#include <cstddef>
#include <cstdint>

#include "report_event/EventRecord.h"

namespace host_platform::fte {

constexpr unsigned char MAGIC[4] = {'F', 'T', 'E', 'R'};
constexpr uint8_t VERSION = 1;

constexpr size_t VERSION_OFFSET = 4;
constexpr size_t ASSERTION_OFFSET = 5;
constexpr size_t EVENT_ID_OFFSET = 6;
constexpr size_t NODE_ID_OFFSET = 8;
constexpr size_t OS_ID_OFFSET = 12;
constexpr size_t DEVICE_ID_OFFSET = 16;
constexpr size_t NAME_LENGTH_OFFSET = 17;
constexpr size_t UDS_ID_OFFSET = 18;
constexpr size_t DID_COUNT_OFFSET = 20;
constexpr size_t LENGTH_OFFSET = 22;
constexpr size_t HEADER_SIZE = 24;
constexpr size_t DID_LENGTH_OFFSET = 2;
constexpr size_t DID_HEADER_SIZE = 4;

constexpr size_t PAYLOAD_SIZE_MAX = ReportEvent::RECORD_SIZE_MAX - ReportEvent::RECORD_PREFIX_SIZE;

// What fits in a record also fits in the 16-bit counts and lengths.
static_assert(PAYLOAD_SIZE_MAX <= UINT16_MAX, "length fields");

}  // namespace host_platform::fte

#endif  // REPORT_EVENT_PLATFORM_HOST_FTE_FAULT_RECORD_FORMAT_H

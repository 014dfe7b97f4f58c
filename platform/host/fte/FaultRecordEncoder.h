// Makes serialized fault events and the event records that carry them; for publishers, tools and tests. A public header
// of the host platform: it needs nothing but the standard library, and libfte to link with.
//
// Pure functions on values, safe on any thread; nothing of what is passed is kept. They throw std::length_error or
// std::invalid_argument, with the cause as text, for an event that has no serialized form, and what allocation throws.
#ifndef REPORT_EVENT_PLATFORM_HOST_FTE_FAULT_RECORD_ENCODER_H
#define REPORT_EVENT_PLATFORM_HOST_FTE_FAULT_RECORD_ENCODER_H

#include <cstdint>
#include <string>
#include <vector>

namespace host_platform::fte {

// One data-identifier record of a fault.
struct FaultDid {
    uint16_t did = 0;
    std::vector<unsigned char> data;
};

struct FaultEvent {
    uint16_t eventId = 0;
    uint8_t assertion = 0;
    uint32_t nodeId = 0;
    uint8_t deviceId = 0;
    uint32_t osId = 0;
    std::string name;  // at most 128 bytes, no NUL among them
    uint16_t udsId = 0;
    std::vector<FaultDid> dids;
};

// The serialized event alone: what FTEDeSerialize reads. At most 3958 bytes.
std::vector<unsigned char> EncodePayload(const FaultEvent& event);

// The event record that a publisher hands out: header 0x00, the forceLog byte, the serialized event. At most 3960
// bytes.
std::vector<unsigned char> EncodeRecord(const FaultEvent& event, bool forceLog);

}  // namespace host_platform::fte

#endif  // REPORT_EVENT_PLATFORM_HOST_FTE_FAULT_RECORD_ENCODER_H

// Frozen at version 1.0, without comments: changes only together with the library's SOVERSION.
#ifndef REPORT_EVENT_EVENT_TYPES_H
#define REPORT_EVENT_EVENT_TYPES_H

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

struct dsmi_event {
    uint8_t reserved0[8];
    uint32_t eventId;
    uint16_t deviceId;
    uint8_t reserved14;
    uint8_t nodeId;
    uint8_t reserved16[2];
    uint8_t severity;
    uint8_t assertion;
    int32_t eventSerialNum;
    int32_t notifySerialNum;
    uint8_t reserved28[4];
    uint64_t eventArisedTime;
    char eventName[288];
    uint8_t osId;
    uint8_t reserved329[31];
};

struct EventInfo {
    uint16_t eventId;
    uint8_t assertion;
    uint32_t nodeId;
    uint8_t deviceId;
    uint32_t osId;
    struct EventPara {
        char buf[128];
    } eventPara;
};

struct DidInfoForCpp {
    uint16_t did = 0;
    std::vector<uint8_t> data;
};

struct UDSInfoForCpp {
    uint16_t udsId = 0;
    std::vector<DidInfoForCpp> didInfo;
};

static_assert(sizeof(dsmi_event) == 360 && std::is_trivially_copyable<dsmi_event>::value, "dsmi_event size");
static_assert(offsetof(dsmi_event, eventId) == 8 && offsetof(dsmi_event, deviceId) == 12 &&
                  offsetof(dsmi_event, nodeId) == 15 && offsetof(dsmi_event, severity) == 18 &&
                  offsetof(dsmi_event, assertion) == 19 && offsetof(dsmi_event, eventSerialNum) == 20 &&
                  offsetof(dsmi_event, notifySerialNum) == 24 && offsetof(dsmi_event, eventArisedTime) == 32 &&
                  offsetof(dsmi_event, eventName) == 40 && offsetof(dsmi_event, osId) == 328 &&
                  offsetof(dsmi_event, reserved329) == 329,
              "dsmi_event layout");
static_assert(sizeof(EventInfo) == 144 && offsetof(EventInfo, assertion) == 2 && offsetof(EventInfo, nodeId) == 4 &&
                  offsetof(EventInfo, deviceId) == 8 && offsetof(EventInfo, osId) == 12 &&
                  offsetof(EventInfo, eventPara) == 16 && sizeof(EventInfo::EventPara) == 128,
              "EventInfo layout");
static_assert(sizeof(DidInfoForCpp) == 32 && offsetof(DidInfoForCpp, data) == 8, "DidInfoForCpp layout");
static_assert(sizeof(UDSInfoForCpp) == 32 && offsetof(UDSInfoForCpp, didInfo) == 8, "UDSInfoForCpp layout");

#endif

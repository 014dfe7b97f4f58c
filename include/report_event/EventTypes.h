// The types in which events reach a client's callbacks.
//
// A callback receives const references that are valid only during the call: a client that keeps an event copies it. All
// integers are in host byte order. The types may be copied and used on any thread like any plain value.
#ifndef REPORT_EVENT_EVENT_TYPES_H
#define REPORT_EVENT_EVENT_TYPES_H

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

// A raw device-management event: 360 bytes, carried byte for byte from the publisher, the reserved ones like the
// others. The library reads its fields only to write the event log, and changes none. What a value means is the
// publisher's to say, unless the field says more.
struct dsmi_event {
    uint8_t reserved0[8];
    uint32_t eventId;   // which event; PM_LOST_EVENT_ID (ResourceNames.h) for the loss of a process manager
    uint16_t deviceId;  // the device concerned
    uint8_t reserved14;
    uint8_t nodeId;  // the node it belongs to
    uint8_t reserved16[2];
    uint8_t severity;         // on the publisher's own scale
    uint8_t assertion;        // a fault event with 0 is always written to the event log, with any other value only when
                              // the record's forceLog is set; a security event never is
    int32_t eventSerialNum;   // the publisher's count of events
    int32_t notifySerialNum;  // its count of notifications
    uint8_t reserved28[4];
    uint64_t eventArisedTime;  // carried unchanged; its unit is the publisher's
    char eventName[288];       // text; may fill the whole area without a terminator
    uint8_t osId;              // the operating system concerned
    uint8_t reserved329[31];
};

// A fault event decoded from its serialized form, without its diagnostic information. Its fields mean what those of the
// same name mean above. Its padding is zero.
struct EventInfo {
    uint16_t eventId;
    uint8_t assertion;
    uint32_t nodeId;
    uint8_t deviceId;
    uint32_t osId;
    struct EventPara {
        char buf[128];  // the event's name; holds NO terminator when the name fills it: never print it with "%s"
    } eventPara;
};

// One data-identifier record of a fault event.
struct DidInfoForCpp {
    uint16_t did = 0;
    std::vector<uint8_t> data;
};

// The diagnostic information of a fault event.
struct UDSInfoForCpp {
    uint16_t udsId = 0;
    std::vector<DidInfoForCpp> didInfo;  // in the order of the record; empty when the event carries none
};

// The library was built with containers of the usual layout. Where these fail, a program uses debug containers
// (_GLIBCXX_DEBUG) or another standard library, and cannot exchange events with it.
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

#endif  // REPORT_EVENT_EVENT_TYPES_H

// A decoded fault event as the encoder takes it, for the tests and the fuzzer of both.
#ifndef REPORT_EVENT_TESTS_UNIT_FAULT_SUPPORT_H
#define REPORT_EVENT_TESTS_UNIT_FAULT_SUPPORT_H

#include <cstring>
#include <string>

#include "fte.h"
#include "platform/host/fte/FaultRecordEncoder.h"

inline host_platform::fte::FaultEvent AsEvent(const FTEInfo& info, const UDSInfo& uds)
{
    const std::string name(info.eventName, strnlen(info.eventName, sizeof(info.eventName)));
    host_platform::fte::FaultEvent event{info.eventId, info.assertion, info.nodeId, info.deviceId,
                                         info.osId,    name,           uds.udsId,   {}};
    for (const DidInfo* did = uds.didInfo; did != uds.didInfo + uds.didNum; ++did) {
        event.dids.push_back({did->did, {did->data, did->data + did->len}});
    }
    return event;
}

#endif  // REPORT_EVENT_TESTS_UNIT_FAULT_SUPPORT_H

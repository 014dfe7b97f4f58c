// The records that travel the road, and the checks of what comes out of it at the callback.
#ifndef REPORT_EVENT_BENCHMARKS_ROAD_RECORD_H
#define REPORT_EVENT_BENCHMARKS_ROAD_RECORD_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "benchmarks/common/StampedRecord.h"
#include "platform/host/fte/FaultRecordEncoder.h"
#include "report_event/EventTypes.h"

namespace bench {

// Fault-family records whose event is not written to the event log (assertion 1, not forced): the log is a file or a
// terminal, and the road is to be measured.
//
// The event inside a raw record, 360 bytes.
StampedRecord RawEvent();

// What goes into a fault record of exactly `size` bytes: a name and as many data-identifier records as it takes. The
// data of each is a stamped record of its own; the first carries the time. Throws std::invalid_argument when `size` is
// too small.
struct FaultParts {
    host_platform::fte::FaultEvent event;
    std::vector<StampedRecord> data;
};
FaultParts MakeFaultParts(size_t size);

// The record of `size` bytes as it is published: raw for 362 bytes, a fault record for any other size.
StampedRecord MakeRoadRecord(size_t size);

class RawEventCheck {
public:
    using Received = dsmi_event;

    RawEventCheck() : check_(RawEvent())
    {
    }

    void Expect(uint64_t number)
    {
        check_.Expect(number);
    }
    bool Matches(const Received& event)
    {
        return check_.Matches(Bytes(event));
    }
    uint64_t NumberIn(const Received& event) const
    {
        return check_.NumberIn(Bytes(event));
    }
    uint64_t TimeIn(const Received& event) const
    {
        return check_.TimeIn(Bytes(event));
    }

private:
    static BytesCheck::Received Bytes(const dsmi_event& event)
    {
        return {reinterpret_cast<const unsigned char*>(&event), sizeof(event)};
    }

    BytesCheck check_;
};

class FaultCheck {
public:
    struct Received {
        const EventInfo& event;
        const UDSInfoForCpp& uds;
    };

    explicit FaultCheck(size_t size);

    void Expect(uint64_t number);
    bool Matches(const Received& received);
    uint64_t NumberIn(const Received& received) const;
    uint64_t TimeIn(const Received& received) const;

private:
    explicit FaultCheck(const FaultParts& parts);

    EventInfo event_;
    uint16_t udsId_;
    std::vector<uint16_t> dids_;
    BytesCheck first_;
    std::vector<StampedRecord> others_;
};

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_ROAD_RECORD_H

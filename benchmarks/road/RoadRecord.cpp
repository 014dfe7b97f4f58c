#include "benchmarks/road/RoadRecord.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include "report_event/EventRecord.h"

namespace bench {
namespace {

constexpr size_t LINE = 64;
constexpr size_t DID_DATA_MAX = 240;
constexpr size_t DID_DATA_MIN = StampedRecord::SIZE_MIN;
constexpr uint16_t FIRST_DID = 0xF100;
constexpr uint8_t NOT_LOGGED = 1;                  // assertion
constexpr uint64_t FINDABLE = 0xB5C6D7E8F9A1B2C3;  // a number that makes even the shortest data unlike its surroundings

host_platform::fte::FaultEvent EventWithoutData()
{
    host_platform::fte::FaultEvent event;
    event.eventId = 0x4F01;
    event.assertion = NOT_LOGGED;
    event.nodeId = 3;
    event.deviceId = 2;
    event.osId = 1;
    event.name = "road of a fault";
    event.udsId = 0x22;
    return event;
}

size_t EncodedSize(const host_platform::fte::FaultEvent& event)
{
    return host_platform::fte::EncodeRecord(event, false).size();
}

// What one data-identifier record costs beside its data.
size_t DidOverhead()
{
    host_platform::fte::FaultEvent event = EventWithoutData();
    const size_t without = EncodedSize(event);
    event.dids.push_back({FIRST_DID, {}});
    return EncodedSize(event) - without;
}

BytesCheck::Received BytesOf(const DidInfoForCpp& did)
{
    return {did.data.data(), did.data.size()};
}

// The numbers of all parts, found again in the encoded record.
StampedRecord MakeFaultRecord(size_t size)
{
    const FaultParts parts = MakeFaultParts(size);
    std::vector<unsigned char> bytes = host_platform::fte::EncodeRecord(parts.event, false);
    std::vector<size_t> numberOffsets;
    size_t timeOffset = 0;
    size_t from = 0;
    for (const StampedRecord& part : parts.data) {
        const auto found = std::search(bytes.begin() + static_cast<std::ptrdiff_t>(from), bytes.end(), part.Data(),
                                       part.Data() + part.Size());
        if (found == bytes.end()) {
            throw std::logic_error("the encoder does not carry the data as it is");
        }
        const auto at = static_cast<size_t>(found - bytes.begin());
        if (numberOffsets.empty()) {
            timeOffset = at + part.TimeOffset();
        }
        for (const size_t offset : part.NumberOffsets()) {
            numberOffsets.push_back(at + offset);
        }
        from = at + part.Size();
    }
    return StampedRecord(std::move(bytes), std::move(numberOffsets), timeOffset);
}

}  // namespace

StampedRecord RawEvent()
{
    std::vector<unsigned char> bytes = StampedRecord::Pattern(sizeof(dsmi_event), 1);
    bytes[offsetof(dsmi_event, assertion)] = NOT_LOGGED;
    std::vector<size_t> numberOffsets{offsetof(dsmi_event, reserved0)};
    for (size_t at = offsetof(dsmi_event, eventName); at + StampedRecord::FIELD <= sizeof(dsmi_event); at += LINE) {
        numberOffsets.push_back(at);
    }
    return StampedRecord(std::move(bytes), std::move(numberOffsets), offsetof(dsmi_event, eventArisedTime));
}

FaultParts MakeFaultParts(size_t size)
{
    FaultParts parts;
    parts.event = EventWithoutData();
    const size_t bare = EncodedSize(parts.event);
    const size_t overhead = DidOverhead();
    if (size < bare + overhead + DID_DATA_MIN) {
        throw std::invalid_argument("SIZE must be 362 or from " + std::to_string(bare + overhead + DID_DATA_MIN) +
                                    " to 3960: a fault record with data does not fit in " + std::to_string(size));
    }
    const size_t room = size - bare;
    const size_t count = (room + overhead + DID_DATA_MAX - 1) / (overhead + DID_DATA_MAX);
    const size_t data = room - count * overhead;
    for (size_t i = 0; i < count; ++i) {
        const size_t share = data / count + (i < data % count ? 1 : 0);
        parts.data.push_back(StampedRecord::Plain(share, static_cast<uint32_t>(i + 1)));
        parts.data.back().Stamp(FINDABLE);
        const unsigned char* bytes = parts.data.back().Data();
        parts.event.dids.push_back({static_cast<uint16_t>(FIRST_DID + i), {bytes, bytes + share}});
    }
    return parts;
}

StampedRecord MakeRoadRecord(size_t size)
{
    if (size != ReportEvent::RAW_RECORD_SIZE) {
        return MakeFaultRecord(size);
    }
    const StampedRecord event = RawEvent();
    std::vector<unsigned char> bytes{ReportEvent::RECORD_HEADER_RAW_FAULT, 0};
    bytes.insert(bytes.end(), event.Data(), event.Data() + event.Size());
    std::vector<size_t> numberOffsets = event.NumberOffsets();
    for (size_t& at : numberOffsets) {
        at += ReportEvent::RECORD_PREFIX_SIZE;
    }
    return StampedRecord(std::move(bytes), std::move(numberOffsets),
                         event.TimeOffset() + ReportEvent::RECORD_PREFIX_SIZE);
}

FaultCheck::FaultCheck(size_t size) : FaultCheck(MakeFaultParts(size))
{
}

FaultCheck::FaultCheck(const FaultParts& parts)
    : event_(), first_(parts.data.front()), others_(parts.data.begin() + 1, parts.data.end())
{
    event_.eventId = parts.event.eventId;
    event_.assertion = parts.event.assertion;
    event_.nodeId = parts.event.nodeId;
    event_.deviceId = parts.event.deviceId;
    event_.osId = parts.event.osId;
    parts.event.name.copy(event_.eventPara.buf, sizeof(event_.eventPara.buf));
    udsId_ = parts.event.udsId;
    for (const host_platform::fte::FaultDid& did : parts.event.dids) {
        dids_.push_back(did.did);
    }
    Expect(0);
}

void FaultCheck::Expect(uint64_t number)
{
    first_.Expect(number);
    for (StampedRecord& data : others_) {
        data.Stamp(number);
    }
}

bool FaultCheck::Matches(const Received& received)
{
    const EventInfo& event = received.event;
    const std::vector<DidInfoForCpp>& dids = received.uds.didInfo;
    if (event.eventId != event_.eventId || event.assertion != event_.assertion || event.nodeId != event_.nodeId ||
        event.deviceId != event_.deviceId || event.osId != event_.osId ||
        std::memcmp(event.eventPara.buf, event_.eventPara.buf, sizeof(event_.eventPara.buf)) != 0 ||
        received.uds.udsId != udsId_ || dids.size() != dids_.size()) {
        return false;
    }
    if (dids[0].did != dids_[0] || !first_.Matches(BytesOf(dids[0]))) {
        return false;
    }
    for (size_t i = 1; i < dids.size(); ++i) {
        if (dids[i].did != dids_[i] || !others_[i - 1].Matches(dids[i].data.data(), dids[i].data.size())) {
            return false;
        }
    }
    return true;
}

uint64_t FaultCheck::NumberIn(const Received& received) const
{
    return received.uds.didInfo.empty() ? UINT64_MAX : first_.NumberIn(BytesOf(received.uds.didInfo[0]));
}

uint64_t FaultCheck::TimeIn(const Received& received) const
{
    return first_.TimeIn(BytesOf(received.uds.didInfo[0]));
}

}  // namespace bench

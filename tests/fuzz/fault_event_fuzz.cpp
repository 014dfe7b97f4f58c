// The serialized fault event: whatever decodes is encoded to the same bytes again; whatever does not leaves nothing.
#include <cstring>
#include <memory>
#include <string>

#include "fte.h"
#include "platform/host/fte/FaultRecordEncoder.h"
#include "tests/fuzz/Require.h"

// As the encoder takes it.
static host_platform::fte::FaultEvent AsEvent(const FTEInfo& info, const UDSInfo& uds)
{
    const std::string name(info.eventName, strnlen(info.eventName, sizeof(info.eventName)));
    host_platform::fte::FaultEvent event{info.eventId, info.assertion, info.nodeId, info.deviceId,
                                         info.osId,    name,           uds.udsId,   {}};
    for (const DidInfo* did = uds.didInfo; did != uds.didInfo + uds.didNum; ++did) {
        event.dids.push_back({did->did, {did->data, did->data + did->len}});
    }
    return event;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FTEInfo info = {};
    UDSInfo uds = {};
    const int code = FTEDeSerialize(data, static_cast<unsigned int>(size), &info, &uds);
    const std::unique_ptr<DidInfo[]> owner(uds.didInfo);
    Require(code != 0 || EncodePayload(AsEvent(info, uds)) == std::vector<unsigned char>(data, data + size));
    return 0;
}

// The serialized fault event: whatever decodes is encoded to the same bytes again; whatever does not leaves nothing.
#include <cstring>
#include <memory>

#include "fte.h"
#include "platform/host/fte/FaultRecordEncoder.h"

namespace {

void Require(bool condition) {
    if (!condition) { __builtin_trap(); }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FTEInfo info{};
    UDSInfo uds{};
    const int code = FTEDeSerialize(data, static_cast<unsigned int>(size), &info, &uds);
    const std::unique_ptr<DidInfo[]> owner(uds.didInfo);
    if (code != 0) { return 0; }
    host_platform::fte::FaultEvent event;
    event.eventId = info.eventId;
    event.assertion = info.assertion;
    event.nodeId = info.nodeId;
    event.deviceId = info.deviceId;
    event.osId = info.osId;
    event.name.assign(info.eventName, strnlen(info.eventName, sizeof(info.eventName)));
    event.udsId = uds.udsId;
    for (size_t i = 0; i < uds.didNum; ++i) {
        const DidInfo& did = uds.didInfo[i];
        event.dids.push_back({did.did, {did.data, did.data + did.len}});
    }
    const auto encoded = host_platform::fte::EncodePayload(event);
    Require(encoded.size() == size && std::memcmp(encoded.data(), data, size) == 0);
    return 0;
}

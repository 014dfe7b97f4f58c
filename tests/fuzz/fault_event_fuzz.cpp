// The serialized fault event: whatever decodes is encoded to the same bytes again; whatever does not leaves nothing.
#include <memory>

#include "tests/fuzz/Require.h"
#include "tests/unit/fault_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FTEInfo info = {};
    UDSInfo uds = {};
    const int code = FTEDeSerialize(data, static_cast<unsigned int>(size), &info, &uds);
    const std::unique_ptr<DidInfo[]> owner(uds.didInfo);
    Require(code != 0 || EncodePayload(AsEvent(info, uds)) == std::vector<unsigned char>(data, data + size));
    return 0;
}

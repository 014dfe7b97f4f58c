// The record decoder with the fault-event decoder behind it: it returns true exactly when it has called the callback of
// the record's kind, once, and a raw event arrives byte for byte.
#include <cstring>
#include <numeric>

#include "subscriber/ReportEventServerImpl.h"
#include "tests/fuzz/Require.h"

namespace {

int g_faults, g_device, g_security;
dsmi_event g_event;

// Reads every byte it was handed.
void TakeFault(const EventInfo& event, const UDSInfoForCpp& uds)
{
    size_t sum = std::accumulate(std::begin(event.eventPara.buf), std::end(event.eventPara.buf), size_t{event.eventId});
    for (const DidInfoForCpp& did : uds.didInfo) {
        sum = std::accumulate(did.data.begin(), did.data.end(), sum);
    }
    g_faults += sum == SIZE_MAX ? 2 : 1;
}

ReportEvent::ReportEventServerImpl* MakeSubscriber()
{
    auto* const made = new ReportEvent::ReportEventServerImpl;
    made->FmRegisterMidReportEventImpl({}, TakeFault, [](const dsmi_event& event) { ++g_device, g_event = event; });
    return made;
}

}  // namespace

namespace ReportEvent {
// The security callback is stored here, because registering it would open its file.
struct ServerTestAccess {
    static void SetSecurityCallback(ReportEventServerImpl& subscriber)
    {
        subscriber.idsEventReportCb = [](const dsmi_event& event) { ++g_security, g_event = event; };
    }
};
}  // namespace ReportEvent

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static ReportEvent::ReportEventServerImpl& subscriber = *MakeSubscriber();
    ReportEvent::ServerTestAccess::SetSecurityCallback(subscriber);
    g_faults = g_device = g_security = 0;
    const bool delivered = subscriber.DeSerializeDataAndCallback(data, static_cast<unsigned int>(size));
    const int header = size == 0 ? -1 : data[0];
    const bool raw = header == 0x01 || header == 0x11;
    Require(g_faults == (delivered && header == 0x00 ? 1 : 0));
    Require(g_device == (delivered && header == 0x01 ? 1 : 0));
    Require(g_security == (delivered && header == 0x11 ? 1 : 0));
    Require(header == 0x00 || delivered == (raw && size == 362));
    Require(!raw || !delivered || std::memcmp(&g_event, data + 2, sizeof(g_event)) == 0);
    return 0;
}

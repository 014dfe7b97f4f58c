// The record decoder with the fault-event decoder behind it: it returns true exactly when it has called the callback of
// the record's kind, once, and a raw event arrives byte for byte.
#include <cstring>

#include "subscriber/ReportEventServerImpl.h"
#include "tests/fuzz/Require.h"

namespace {

int g_faults;
int g_device;
int g_security;
dsmi_event g_event;

}  // namespace

namespace ReportEvent {

// The callbacks are stored here, because registering the one for security events would open its file.
struct ServerTestAccess : ReportEventServerImpl {
    ServerTestAccess()
    {
        reportEventCb = [](const EventInfo&, const UDSInfoForCpp&) { ++g_faults; };
        reportEventMidCb = [](const dsmi_event& event) {
            ++g_device;
            g_event = event;
        };
        idsEventReportCb = [](const dsmi_event& event) {
            ++g_security;
            g_event = event;
        };
    }
};

}  // namespace ReportEvent

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const auto& subscriber = *new ReportEvent::ServerTestAccess;
    g_faults = 0;
    g_device = 0;
    g_security = 0;
    const bool delivered = subscriber.DeSerializeDataAndCallback(data, static_cast<unsigned int>(size));
    const int header = size == 0 ? -1 : data[0];
    const bool isRaw = header == 0x01 || header == 0x11;
    Require(g_faults == (delivered && header == 0x00 ? 1 : 0));
    Require(g_device == (delivered && header == 0x01 ? 1 : 0));
    Require(g_security == (delivered && header == 0x11 ? 1 : 0));
    Require(header == 0x00 || delivered == (isRaw && size == 362));
    Require(!isRaw || !delivered || std::memcmp(&g_event, data + 2, sizeof(g_event)) == 0);
    return 0;
}

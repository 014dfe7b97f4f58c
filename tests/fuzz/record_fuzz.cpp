// The record decoder with the fault-event decoder behind it: it returns true exactly when it has called the callback of
// the record's kind, once, and a raw event arrives byte for byte.
#include <cstring>

#include "subscriber/ReportEventServerImpl.h"

namespace {

int g_faults = 0;
int g_device = 0;
int g_security = 0;
dsmi_event g_event;

void Require(bool condition) {
    if (!condition) { __builtin_trap(); }
}

ReportEvent::ReportEventServerImpl& Subscriber() {
    static auto& subscriber = *[] {
        auto* made = new ReportEvent::ReportEventServerImpl;
        made->FmRegisterMidReportEventImpl(
            {},
            [](const EventInfo& event, const UDSInfoForCpp& uds) {
                // Reads every byte it was handed.
                size_t sum = event.eventId;
                for (const char c : event.eventPara.buf) { sum += static_cast<unsigned char>(c); }
                for (const DidInfoForCpp& did : uds.didInfo) {
                    for (const uint8_t byte : did.data) { sum += byte; }
                }
                g_faults += sum == SIZE_MAX ? 2 : 1;
            },
            [](const dsmi_event& event) { ++g_device, g_event = event; });
        made->UnregIDSEventReportHandlerImpl();
        return made;
    }();
    return subscriber;
}

}  // namespace

namespace ReportEvent {
// The security callback is stored here, because registering it would open its file.
struct ServerTestAccess {
    static void SetSecurityCallback(ReportEventServerImpl& subscriber) {
        subscriber.idsEventReportCb = [](const dsmi_event& event) { ++g_security, g_event = event; };
    }
};
}  // namespace ReportEvent

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ReportEvent::ReportEventServerImpl& subscriber = Subscriber();
    ReportEvent::ServerTestAccess::SetSecurityCallback(subscriber);
    g_faults = g_device = g_security = 0;
    const bool delivered = subscriber.DeSerializeDataAndCallback(data, static_cast<unsigned int>(size));
    const int header = size == 0 ? -1 : data[0];
    Require(g_faults + g_device + g_security == (delivered ? 1 : 0));
    Require(g_faults == 0 || header == 0x00);
    if (header == 0x01 || header == 0x11) {
        Require(delivered == (size == 362));
        Require((header == 0x01 ? g_device : g_security) == (delivered ? 1 : 0));
        Require(!delivered || std::memcmp(&g_event, data + 2, sizeof(g_event)) == 0);
    } else {
        Require(header == 0x00 || !delivered);
    }
    return 0;
}

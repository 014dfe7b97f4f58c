// The publisher of a process: one resource service, one pool, one current reader.
//
// Everything but `poolRegistered_` is static: the notifications that IAM delivers carry no object, and they may arrive
// before and after the one instance exists. `poolMutex_` guards all of it and is, by design, held across the calls into
// IAM: it is what serialises the records, and what keeps the current reader in place between the test of its state and
// the enqueue. IAM never delivers a notification on a thread that is inside one of those calls.
#ifndef REPORT_EVENT_PUBLISHER_REPORT_EVENT_CLIENT_IMPL_H
#define REPORT_EVENT_PUBLISHER_REPORT_EVENT_CLIENT_IMPL_H

#include <cstdint>
#include <mutex>
#include <string>

#include "iam.h"
#include "report_event/ReportEventClient.h"

namespace ProcMgr {

class ReportEventClientImpl : public ReportEventClient {
public:
    ReportEventClientImpl();
    ~ReportEventClientImpl() override;

    int RegisterResService(const std::string& name) override;
    int ReportEvent(const char* buf, unsigned int size) override;

    // Notifications from IAM: a reader has opened or closed the resource. The newest opener is the current reader; the
    // close of any other changes nothing. Return 0, or -1 for a null file.
    static int MyOpen(IAMRTFSMgrFile* file);
    static int MyClose(IAMRTFSMgrFile* file);

private:
    friend struct ClientTestAccess;

    enum ServerStatus : int32_t { NEVER_OPENED = 0, OPEN = 1, CLOSED = 2 };

    static int RegisterService(const std::string& name);
    int RegisterPool(const std::string& name);
    static void FreeBlock();

    static IAMDataPackage dataPakg_;  // leads every call to the two handles below; what is enqueued for each record
    static int32_t serverStatus_;     // a ServerStatus: the state of the current reader
    static std::mutex poolMutex_;
    static IAMShmBlockHandle blockHdl_;  // the block of the record being published
    static IAMShmPoolHandle poolHandle_;
    static IAMRTFSMgrFile* iamRtfsFile_;  // the current reader, owned by IAM; null while there is none

    bool poolRegistered_ = false;
};

}  // namespace ProcMgr

#endif  // REPORT_EVENT_PUBLISHER_REPORT_EVENT_CLIENT_IMPL_H

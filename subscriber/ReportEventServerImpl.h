// The subscriber of a process: its state and the operations behind ReportEventServer.
//
// Threads: the four operations of ReportEventServer and the destructor run on the client's threads, one at a time
// ("the caller" below). One read thread per subscribed file runs ReadData. The fault-reporting library calls
// FaultReportCallback on threads of its own. The two locks that order these stand in the source file.
#ifndef REPORT_EVENT_SUBSCRIBER_REPORT_EVENT_SERVER_IMPL_H
#define REPORT_EVENT_SUBSCRIBER_REPORT_EVENT_SERVER_IMPL_H

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "report_event/EventRecord.h"
#include "report_event/EventTypes.h"
#include "report_event/ReportEventServer.h"

namespace ReportEvent {

extern const std::string PM_FAULT_RES_FILE;
extern const std::string SEA_PM_FAULT_RES_FILE;
extern const std::string PM_PROCESS_NAME;
extern const std::string SEA_PM_PROCESS_NAME;
extern const std::string SEC_EVENT_RES_FILE;

// One subscribed resource file. Owns the descriptor and the thread: whoever removes an entry closes and joins first.
struct EventSourceInfo {
    int fd;                  // -1 while nobody owns a descriptor here; guarded by the table lock
    std::thread readThread;  // touched by the caller only
};

class ReportEventServerImpl : public ReportEventServer {
public:
    ~ReportEventServerImpl() override;

    int FmRegisterMidReportEventImpl(const std::vector<std::string>& groupOwnerList,
                                     const std::function<void(const EventInfo&, const UDSInfoForCpp&)>& eventCallback,
                                     const std::function<void(const dsmi_event&)>& deviceCallback) override;
    int FmUnregisterReportEventImpl(const std::vector<std::string>& groupOwnerList) override;
    int RegIDSEventReportHandlerImpl(const std::function<void(const dsmi_event&)>& securityCallback) override;
    int UnregIDSEventReportHandlerImpl() override;

    // Subscriptions of one family.
    int StartSubscribeEvent(const std::vector<std::string>& groupOwnerList, EventType type);
    int StopSubscribeEvent(const std::vector<std::string>& groupOwnerList, EventType type);

    // The body of a read thread; `name` is the thread's own copy.
    void ReadData(int fd, const std::string& name, EventType type);
    bool TryReconnectServer(int& fd, const std::string& name, EventType type);

    // Decodes one record and calls the callback of its kind. True exactly when the callback was called.
    bool DeSerializeDataAndCallback(const unsigned char* data, unsigned int len) const;

    // The two directions of the fault-reporting library.
    void InitPmFaultReport();
    void FinishPmFaultReport();
    int FaultReportCallback(const unsigned char* data, const unsigned int& len) const;
    void ReportPmEvent(const std::string& resFile) const;

private:
    friend struct ServerTestAccess;

    using SourceMap = std::map<std::string, EventSourceInfo>;

    SourceMap& Table(EventType type);
    std::atomic<bool>& RunningFlag(EventType type);
    void RetireLeftovers(EventType type);
    int SubscribeFile(const std::string& name, EventType type);

    SourceMap faultEvtSrcMap_;
    SourceMap secEvtSrcMap_;
    std::atomic<bool> faultEvtRunning_{false};
    std::atomic<bool> secEvtRunning_{false};
    std::function<void(const EventInfo&, const UDSInfoForCpp&)> reportEventCb;
    std::function<void(const dsmi_event&)> reportEventMidCb;
    std::function<void(const dsmi_event&)> idsEventReportCb;
};

}  // namespace ReportEvent

#endif  // REPORT_EVENT_SUBSCRIBER_REPORT_EVENT_SERVER_IMPL_H

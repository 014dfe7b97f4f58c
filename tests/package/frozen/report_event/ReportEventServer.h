// Frozen at version 1.0, without comments: changes only together with the library's SOVERSION.
#ifndef REPORT_EVENT_REPORT_EVENT_SERVER_H
#define REPORT_EVENT_REPORT_EVENT_SERVER_H

#include <functional>
#include <string>
#include <vector>

#include "report_event/EventTypes.h"

class __attribute__((visibility("default"))) ReportEventServer {
public:
    virtual ~ReportEventServer();

    static ReportEventServer& GetInstance();

    virtual int FmRegisterMidReportEventImpl(
        const std::vector<std::string>& groupOwnerList,
        const std::function<void(const EventInfo&, const UDSInfoForCpp&)>& eventCallback,
        const std::function<void(const dsmi_event&)>& deviceCallback) = 0;

    virtual int FmUnregisterReportEventImpl(const std::vector<std::string>& groupOwnerList) = 0;

    virtual int RegIDSEventReportHandlerImpl(const std::function<void(const dsmi_event&)>& securityCallback) = 0;

    virtual int UnregIDSEventReportHandlerImpl() = 0;
};

#endif

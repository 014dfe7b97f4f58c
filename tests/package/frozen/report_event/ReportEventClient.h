// Frozen at version 1.0, without comments: changes only together with the library's SOVERSION.
#ifndef REPORT_EVENT_REPORT_EVENT_CLIENT_H
#define REPORT_EVENT_REPORT_EVENT_CLIENT_H

#include <string>

class __attribute__((visibility("default"))) ReportEventClient {
public:
    virtual ~ReportEventClient();

    static ReportEventClient& GetInstance();

    virtual int RegisterResService(const std::string& name) = 0;

    virtual int ReportEvent(const char* buf, unsigned int size) = 0;
};

#endif

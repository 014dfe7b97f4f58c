// The publishing half's log levels and the system-log priority of each.
#ifndef REPORT_EVENT_PUBLISHER_GRP_OWNER_LOG_LEVEL_H
#define REPORT_EVENT_PUBLISHER_GRP_OWNER_LOG_LEVEL_H

#include <syslog.h>

#include <cstdint>
#include <map>

namespace ProcMgr {

// The values name kinds of messages; they are not ordered by weight.
enum GrpOwnerLogLevel : int32_t {
    GRP_OWNER_LOG_DEBUG = 0,
    GRP_OWNER_LOG_INFO = 1,
    GRP_OWNER_LOG_WARNING = 2,
    GRP_OWNER_LOG_ERROR = 3,
    GRP_OWNER_LOG_NOTICE = 4,
};

// Returns the system-log priority of `level`, LOG_INFO for a value that is no level.
inline int GetSyslogLevel(GrpOwnerLogLevel level)
{
    static const std::map<GrpOwnerLogLevel, int> syslogLevel = {
        {GRP_OWNER_LOG_DEBUG, LOG_DEBUG}, {GRP_OWNER_LOG_INFO, LOG_INFO},     {GRP_OWNER_LOG_WARNING, LOG_WARNING},
        {GRP_OWNER_LOG_ERROR, LOG_ERR},   {GRP_OWNER_LOG_NOTICE, LOG_NOTICE},
    };
    const auto priority = syslogLevel.find(level);
    return priority == syslogLevel.end() ? LOG_INFO : priority->second;
}

}  // namespace ProcMgr

#endif  // REPORT_EVENT_PUBLISHER_GRP_OWNER_LOG_LEVEL_H

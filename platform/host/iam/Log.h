// How this library logs: lines that a peer can provoke, so of a bounded rate, and each asks for its level first.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_LOG_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_LOG_H

#include "platform/host/slog/HostLog.h"
#include "slog.h"

namespace host_platform::iam {

constexpr int LOG_MODULE = 71;
constexpr int LOG_LEVEL = 3;

}  // namespace host_platform::iam

#define IAM_LOG(...)                                                                                     \
    do {                                                                                                 \
        if (CheckLogLevel(host_platform::iam::LOG_MODULE, host_platform::iam::LOG_LEVEL) == 1) {         \
            SlogHostBounded(host_platform::iam::LOG_MODULE, host_platform::iam::LOG_LEVEL, __VA_ARGS__); \
        }                                                                                                \
    } while (false)

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_LOG_H

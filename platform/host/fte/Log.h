// How this library logs: every message asks for its level first.
#ifndef REPORT_EVENT_PLATFORM_HOST_FTE_LOG_H
#define REPORT_EVENT_PLATFORM_HOST_FTE_LOG_H

#include "slog.h"

namespace host_platform::fte {

constexpr int LOG_MODULE = 70;
constexpr int LOG_LEVEL = 3;

}  // namespace host_platform::fte

#define FTE_LOG(...)                                                                               \
    do {                                                                                           \
        if (CheckLogLevel(host_platform::fte::LOG_MODULE, host_platform::fte::LOG_LEVEL) == 1) {   \
            DlogInner(host_platform::fte::LOG_MODULE, host_platform::fte::LOG_LEVEL, __VA_ARGS__); \
        }                                                                                          \
    } while (false)

#endif  // REPORT_EVENT_PLATFORM_HOST_FTE_LOG_H

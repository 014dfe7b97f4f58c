// The outcome of a step that can fail for reasons a person should read.
#ifndef REPORT_EVENT_PLATFORM_HOST_COMMON_STATUS_H
#define REPORT_EVENT_PLATFORM_HOST_COMMON_STATUS_H

namespace host_platform {

// Costs no memory, so that a failure can be passed on when there is none.
struct [[nodiscard]] Status {
    int error = 0;                // an errno value, 0 for success
    const char* cause = nullptr;  // a constant text that completes "... failed: "

    bool Failed() const
    {
        return error != 0;
    }
};

}  // namespace host_platform

#endif  // REPORT_EVENT_PLATFORM_HOST_COMMON_STATUS_H

// The outcome of a step that can fail for reasons a person should read.
#ifndef REPORT_EVENT_PLATFORM_HOST_COMMON_STATUS_H
#define REPORT_EVENT_PLATFORM_HOST_COMMON_STATUS_H

#include <cerrno>

namespace host_platform {

// Costs no memory, so that a failure can be passed on when there is none.
struct [[nodiscard]] Status {
    int error = 0;                // an errno value, 0 for success
    const char* cause = nullptr;  // a constant text that completes "... failed: "

    bool Failed() const
    {
        return error != 0;
    }
    // The outcome of the next step, which is only taken when this one has succeeded.
    template <typename Step>
    Status Then(Step step) const
    {
        return Failed() ? *this : step();
    }
};

// The outcome of a call that sets errno when it fails.
inline Status Check(bool succeeded, const char* cause)
{
    return succeeded ? Status{} : Status{errno, cause};
}

}  // namespace host_platform

#endif  // REPORT_EVENT_PLATFORM_HOST_COMMON_STATUS_H

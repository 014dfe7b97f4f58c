// The outcome of a step that can fail for reasons a person should read.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_STATUS_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_STATUS_H

#include <string>

namespace host_platform::iam {

struct [[nodiscard]] Status {
    int error = 0;      // an errno value, 0 for success
    std::string cause;  // completes "... failed: "

    bool Failed() const
    {
        return error != 0;
    }
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_STATUS_H

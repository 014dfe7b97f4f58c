// Why a part of the program has given up: told on one thread, heard on another.
#ifndef REPORT_EVENT_TOOLS_FORWARD_FAILURE_H
#define REPORT_EVENT_TOOLS_FORWARD_FAILURE_H

#include <mutex>
#include <string>

#include "tools/ToolSupport.h"

namespace tools::forward {

class Failure {
public:
    void Tell(const std::string& cause)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        cause_ = cause;
        told_.Raise();
    }
    // Readable once a cause has been told.
    int Descriptor() const
    {
        return told_.Descriptor();
    }
    std::string Cause() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return cause_;
    }

private:
    Flag told_;
    mutable std::mutex mutex_;
    std::string cause_;
};

}  // namespace tools::forward

#endif  // REPORT_EVENT_TOOLS_FORWARD_FAILURE_H

// A thread that lives as long as the process and that nobody waits for.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_BACKGROUND_THREAD_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_BACKGROUND_THREAD_H

#include <sys/types.h>
#include <unistd.h>

#include <atomic>

#include "platform/host/common/Status.h"

namespace host_platform::iam {

class BackgroundThread {
public:
    // Starts it, under this name (15 characters), to run `run(argument)`. Every signal is blocked on it: the process's
    // signals are for its own threads.
    Status Start(const char* name, void* (*run)(void*), void* argument);

    bool Runs() const
    {
        return process_ == getpid();
    }
    // A child of fork does not have the thread.
    bool IsInChild() const
    {
        return process_ != 0 && !Runs();
    }

private:
    std::atomic<pid_t> process_{0};
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_BACKGROUND_THREAD_H

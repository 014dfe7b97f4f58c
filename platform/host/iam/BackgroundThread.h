// Threads that live as long as the process and belong to nobody who could wait for them.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_BACKGROUND_THREAD_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_BACKGROUND_THREAD_H

#include "platform/host/common/Status.h"

namespace host_platform::iam {

// Starts a thread of this name (15 characters) that runs `run(argument)`. Every signal is blocked on it: the process's
// signals are for its own threads.
Status StartBackgroundThread(const char* name, void* (*run)(void*), void* argument);

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_BACKGROUND_THREAD_H

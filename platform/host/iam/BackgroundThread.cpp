#include "platform/host/iam/BackgroundThread.h"

#include <pthread.h>

#include <csignal>

namespace host_platform::iam {

Status BackgroundThread::Start(const char* name, void* (*run)(void*), void* argument)
{
    pthread_t thread{};
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);  // the new thread inherits the mask
    const int error = pthread_create(&thread, nullptr, run, argument);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error != 0) {
        return {error, "no thread can be started"};
    }
    pthread_setname_np(thread, name);
    pthread_detach(thread);
    process_ = getpid();
    return {};
}

}  // namespace host_platform::iam

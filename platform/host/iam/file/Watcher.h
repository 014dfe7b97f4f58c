// The one thread of a subscribing process that follows the sockets of its resource files, so that a reader can sleep on
// its ring alone.
//
// What happens to a socket (a message, a hang-up, the shutdown that a close does) is noted in its file, and a reader
// that sleeps there is woken, again every millisecond until it has taken notice: it may just have been falling asleep,
// and a broken service may change the word that it sleeps on.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_FILE_WATCHER_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_FILE_WATCHER_H

#include <sys/types.h>

#include <atomic>

#include "platform/host/common/Descriptor.h"
#include "platform/host/common/Mutex.h"
#include "platform/host/common/Status.h"

namespace host_platform::iam {

class OpenFiles;
class ResourceFile;

class Watcher {
public:
    explicit Watcher(const OpenFiles& files) : files_(files)
    {
    }

    // Starts the thread, unless it runs. ENOTSUP in a child of the process in which it does.
    Status Start() HOST_EXCLUDES(startMutex_);
    // Follows the socket of this file until it is closed.
    Status Follow(ResourceFile& file);

    // Not so before the first start, nor in a child of fork.
    bool IsInThisProcess() const;

private:
    void Run();

    const OpenFiles& files_;
    Mutex startMutex_;  // held only to start the thread
    UniqueFd epoll_;    // set before the thread starts, and stays
    std::atomic<pid_t> process_{0};
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_FILE_WATCHER_H

#include "platform/host/iam/file/Watcher.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <iterator>

#include "platform/host/iam/BackgroundThread.h"
#include "platform/host/iam/file/OpenFiles.h"

namespace host_platform::iam {
namespace {

constexpr int AGAIN_MS = 1;

}  // namespace

Status Watcher::Start()
{
    const MutexLock lock(startMutex_);
    if (IsInThisProcess()) {
        return {};
    }
    if (process_ != 0) {
        return {ENOTSUP, "a child of fork must call exec first"};
    }
    epoll_ = AboveStandard(epoll_create1(EPOLL_CLOEXEC));
    if (!epoll_) {
        return {errno, "the watching thread cannot be set up"};
    }
    const auto run = [](void* watcher) -> void* {
        static_cast<Watcher*>(watcher)->Run();
        return nullptr;
    };
    const Status status = StartBackgroundThread("iam-watcher", run, this);
    if (!status.Failed()) {
        process_ = getpid();
    }
    return status;
}

Status Watcher::Follow(ResourceFile& file)
{
    epoll_event event{};
    event.events = EPOLLIN | EPOLLRDHUP | EPOLLET;  // also for what has happened before
    event.data.ptr = &file;
    if (epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, file.Socket(), &event) != 0) {
        return {errno, "its socket cannot be watched"};
    }
    return {};
}

bool Watcher::IsInThisProcess() const
{
    return process_ == getpid();
}

void Watcher::Run()
{
    epoll_event events[64];
    for (bool again = false;;) {
        const int count = epoll_wait(epoll_.Get(), events, std::size(events), again ? AGAIN_MS : -1);
        for (int i = 0; i < count; ++i) {
            static_cast<ResourceFile*>(events[i].data.ptr)->CallAttention();
        }
        again = files_.WakeInattentive();
    }
}

}  // namespace host_platform::iam

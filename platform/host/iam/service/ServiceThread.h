// The one thread of a serving process that talks to readers: it accepts them, leads them through the handshake, hears
// when they hang up, and delivers every notification, with no lock held.
//
// It starts with the first service and lives as long as the process; nothing of it is ever destroyed. Connections
// belong to it alone and are not guarded. Nothing it does waits for a reader. A child of fork has no such thread: it
// must leave by exec or _exit.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_SERVICE_THREAD_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_SERVICE_THREAD_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "iam.h"
#include "platform/host/common/Descriptor.h"
#include "platform/host/common/Mutex.h"
#include "platform/host/common/Status.h"
#include "platform/host/iam/service/BlockQueue.h"
#include "platform/host/iam/service/Service.h"

namespace host_platform::iam {

class ServiceThread {
public:
    static ServiceThread& Instance();

    // Starts the thread, once. Throws what starting a thread throws.
    Status Start() HOST_EXCLUDES(mutex_);

    // Accepts readers of a service that is about to serve.
    Status Watch(size_t serviceNumber, int listener);

    // Whether the caller is inside a notification.
    bool IsCurrentThread() const HOST_EXCLUDES(mutex_);
    // Whether the thread exists in this process: not so in a child of fork.
    bool IsInThisProcess() const;

    // Carries out the end that has begun for this service: closes every connection, delivers the close notifications,
    // releases the name. Returns when that is done; at once, with no notification to follow, when called from inside
    // a notification.
    void End(Service& service) HOST_EXCLUDES(mutex_);

private:
    using Clock = std::chrono::steady_clock;

    enum class Stage { AWAIT_HELLO, AWAIT_READY, CONNECTED };

    // A reader, from its acceptance to its hang-up.
    struct Connection {
        uint64_t id = 0;
        size_t serviceNumber = 0;
        Service* service = nullptr;
        UniqueFd socket;
        int pid = 0;
        Stage stage = Stage::AWAIT_HELLO;
        std::unique_ptr<BlockQueue> queue;  // until it is attached to the service
        ReaderKey key{};                    // from then on
        std::string label;
        IAMRTFSMgrFile file{};  // what notifications point to; dataHandle is 0 until there was one
    };
    struct Deadline {
        Clock::time_point at;
        uint64_t connection;
    };

    ServiceThread() = default;

    void Run();
    int WaitTime() const;
    void Dispatch(uint64_t key, uint32_t events);

    void AcceptReaders(size_t serviceNumber);
    void AddConnection(size_t serviceNumber, Service& service, UniqueFd socket);
    void PauseListening(size_t serviceNumber, int listener, int error);
    void ResumeListening();

    void HearReader(Connection& connection, uint32_t events);
    Status Advance(Connection& connection, MessageType type);
    Status Greet(Connection& connection);
    void CloseConnection(uint64_t id, const char* cause);
    void DropLateHandshakes();

    void FinishEnds();
    void FinishEnd(Service& service);

    UniqueFd epoll_;  // both are set before the thread starts and stay
    UniqueFd wake_;
    pid_t process_ = 0;

    mutable Mutex mutex_;
    bool started_ HOST_GUARDED_BY(mutex_) = false;
    std::thread::id threadId_ HOST_GUARDED_BY(mutex_);
    std::vector<Service*> ends_ HOST_GUARDED_BY(mutex_);  // to be carried out

    // The rest is the thread's own.
    std::unordered_map<uint64_t, std::unique_ptr<Connection>> connections_;
    uint64_t lastConnection_ = 0;
    std::deque<Deadline> handshakes_;  // in order, because all have the same time
    std::vector<size_t> paused_;       // services whose readers wait until descriptors are free again
    Clock::time_point resumeAt_{};
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_SERVICE_THREAD_H

// The one thread of a serving process that talks to readers: it accepts them, leads them through the handshake, hears
// when they hang up, and delivers every notification, with no lock held.
//
// It starts with the first service and lives as long as the process. Nothing it does waits for a reader. A child of
// fork has no such thread: it must leave by exec or _exit.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_SERVICE_THREAD_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_SERVICE_THREAD_H

#include <cstdint>

#include "platform/host/common/Descriptor.h"
#include "platform/host/common/Status.h"
#include "platform/host/iam/BackgroundThread.h"
#include "platform/host/iam/Endpoint.h"
#include "platform/host/iam/service/Reader.h"
#include "platform/host/iam/wire/Messages.h"

namespace host_platform::iam {

class Service;

class ServiceThread {
public:
    explicit ServiceThread(Service& service) : service_(service)
    {
    }

    // --- For other threads. Starts do not overlap.

    // Starts the thread, unless it runs.
    Status Start();
    // Accepts readers of a service that is about to serve.
    Status Watch(const Endpoint& endpoint);
    // Makes it look for readers that were cut off, and whether the service is to be ended.
    void Wake() const;

    // Whether the caller is inside a notification.
    static bool IsCurrentThread();
    bool IsInChild() const
    {
        return thread_.IsInChild();
    }

private:
    void Run();
    void Dispatch(uint64_t key, uint32_t events);
    void HearOfFiles();

    void AcceptReaders();
    void Admit(UniqueFd socket);
    void Listen(bool on);

    void Hear(Reader& reader, uint32_t events);
    Status Advance(Reader& reader, const ReceivedMessage& received);
    Status Greet(Reader& reader);
    Status Answer(const Reader& asking);
    void Close(Reader& reader, const char* cause);

    // Closes those for which there is a cause.
    void CloseThose(const char* (*cause)(const Reader& reader));
    void FinishEnd();

    Service& service_;
    BackgroundThread thread_;
    UniqueFd epoll_;  // all three are set before the thread starts and stay
    UniqueFd wake_;
    UniqueFd notice_;  // of what happens to the service's files; none if the system has no such descriptor to give

    // The rest is the thread's own.
    int handshakes_ = 0;  // readers whose handshake is not complete
    bool woken_ = false;
    bool socketGone_ = false;  // and it has been said
    bool paused_ = false;      // readers wait until descriptors are free again
    Clock::time_point resumeAt_{};
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_SERVICE_SERVICE_THREAD_H

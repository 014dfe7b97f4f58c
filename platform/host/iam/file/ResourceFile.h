// A reader's side of one opened resource file.
//
// One thread at a time reads; any thread may close at any moment. The memory and the descriptors stay until the last
// of them lets go, so a read never touches what a close has released.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_FILE_RESOURCE_FILE_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_FILE_RESOURCE_FILE_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/host/common/Descriptor.h"
#include "platform/host/common/Status.h"
#include "platform/host/iam/Doorbell.h"
#include "platform/host/iam/wire/Messages.h"
#include "platform/host/iam/wire/Protocol.h"
#include "platform/host/iam/wire/Ring.h"

namespace host_platform::iam {

class ResourceFile {
public:
    // Connects to whoever serves the resource: at most a second in all, whatever the other side does. Once, before any
    // other call. ENOENT or ECONNREFUSED when nobody serves it, ETIMEDOUT when the service does not answer, EPROTO when
    // what it answers makes no sense, EACCES when it runs as another user.
    Status Connect(const std::string& resource);

    // Returns the length of the record, or a negative errno value:
    //   EBADF     closed meanwhile, by whichever thread
    //   EPIPE     the service has ended; what it had queued was delivered first
    //   ESTALE    the service lives and has cut this reader off
    //   EMSGSIZE  the record does not fit; it stays the next one
    //   EPROTO    the ring, the pool or a message makes no sense; this connection is of no more use
    //   EBUSY     another thread is reading
    //   EMFILE, ENOMEM  the pool has arrived and could not be mapped
    int64_t Read(void* buffer, size_t length);

    // Ends every read, running or to come, at once.
    void Close();

    bool Closed() const
    {
        // Relaxed: for a reader that comes by, the answer is as good a moment earlier.
        return closed_.load(std::memory_order_relaxed);
    }
    int Socket() const
    {
        return socket_.Get();
    }

private:
    Status Handshake(std::chrono::steady_clock::time_point deadline);
    Status Take(ReceivedMessage& received, bool& connected);
    Status TakeRing(ReceivedMessage& received);
    Status TakePool(const ReceivedMessage& received);

    int64_t ReadAlone(void* buffer, size_t length);
    int64_t Deliver(void* buffer, size_t length);
    void FetchAhead() const;
    int Sleep();
    int HearService();
    int Broken(const char* cause);

    UniqueFd socket_;  // the number that open returned is a duplicate of it
    std::string resource_;
    DoorbellListener bell_;
    RingReader ring_;
    bool hasRing_ = false;
    Mapping pool_;
    PoolShape poolShape_;

    bool hungUp_ = false;  // nothing more will come
    int failure_ = 0;      // set for good by Broken

    std::atomic<bool> reading_{false};
    std::atomic<bool> closed_{false};
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_FILE_RESOURCE_FILE_H

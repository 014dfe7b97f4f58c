// The subscriber's side of one opened resource file.
//
// One thread at a time reads; any thread may close at any moment. An object is never returned to the heap but used
// again, so that a pointer to one stays good for ever; the number of the use tells one file from the next. The number
// and who is inside stand in one word: whoever leaves last after the close releases memory and socket, so that a read
// never touches what a close has released.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_FILE_RESOURCE_FILE_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_FILE_RESOURCE_FILE_H

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "platform/host/common/Descriptor.h"
#include "platform/host/common/Status.h"
#include "platform/host/iam/RuntimeDirectory.h"
#include "platform/host/iam/wire/Messages.h"
#include "platform/host/iam/wire/Protocol.h"
#include "platform/host/iam/wire/Ring.h"

namespace host_platform::iam {

class ResourceFile {
public:
    // --- For whoever opens it, one thread at a time.

    // Takes it for a new use, unless an old one still lasts. Until Publish it is closed to everyone else.
    bool Claim();
    // Connects to whoever serves the resource: at most a second in all, whatever the other side does. ENOENT or
    // ECONNREFUSED when nobody serves it, ETIMEDOUT when the service does not answer, EPROTO when what it answers makes
    // no sense, EACCES when it runs as another user.
    Status Connect(const char* resource, Role role);
    void Publish();
    // Instead of Publish: gives back what it has.
    void Abandon();

    // --- For everyone, once it is published.

    uint64_t Use() const
    {
        return state_.load() / USE_STEP;
    }
    const UniqueFd& Socket() const
    {
        return socket_;
    }
    const Path& Resource() const
    {
        return resource_;
    }
    // Records that it has missed as an observer. Only while it is open.
    uint64_t Lost() const
    {
        return ring_.Lost();
    }
    bool HasLostPlace() const
    {
        return failure_ == ESTALE;
    }

    // Returns the length of the record, or a negative errno value:
    //   EBADF     this use of it is over, or ends meanwhile, by whichever thread
    //   EPIPE     the service has ended; what it had queued was delivered first
    //   ESTALE    the service lives and has cut this reader off
    //   EMSGSIZE  the record does not fit; it stays the next one
    //   EPROTO    the ring, the pool or a message makes no sense; this file is of no more use
    //   EBUSY     another thread is reading
    //   EMFILE, ENOMEM  the pool has arrived and could not be mapped
    int64_t Read(uint64_t use, void* buffer, size_t length);

    // Ends every read of this use, running or to come, at once. Once for each use.
    void Close();

    // --- For the watcher.

    // Something has happened to the socket that a reader must look at.
    void CallAttention()
    {
        attention_.store(true);
    }
    // Wakes a reader that sleeps in spite of that. False when there is none; otherwise it has to be tried again until
    // then, because a reader that is just falling asleep is missed.
    bool WakeInattentive() const;

private:
    // The word: the number of the use, and in its low bits who is inside.
    static constexpr uint64_t CLOSED = 1;
    static constexpr uint64_t READING = 2;  // one thread reads
    static constexpr uint64_t HELD = 4;     // one thread opens or closes it
    static constexpr uint64_t USE_STEP = 8;

    bool IsClosed() const
    {
        // Relaxed: where it matters, a fence or another look follows.
        return (state_.load(std::memory_order_relaxed) & CLOSED) != 0;
    }
    void Leave(uint64_t flag);
    void Release();

    Status HearMessage();
    Status Take(const ReceivedMessage& received);
    Status TakeRing(const ReceivedMessage& received);
    Status TakePool(const ReceivedMessage& received);

    int64_t ReadAlone(void* buffer, size_t length);
    int64_t Deliver(void* buffer, size_t length);
    void FetchAhead() const;
    bool StreamGoesOn();
    int Sleep();
    int HearService();
    int Fail(int error);
    int Broken(const char* cause);

    std::atomic<uint64_t> state_{CLOSED};
    std::atomic<bool> attention_{false};
    std::atomic<const BellWord*> sleepsAt_{nullptr};  // where the reading thread sleeps, or is about to

    // Of the thread that is inside.
    UniqueFd socket_;  // the number that open returned is a duplicate of it
    Path resource_{};
    RingReader ring_;
    Mapping pool_;
    PoolShape poolShape_;
    bool connected_ = false;       // the service has said so
    bool hungUp_ = false;          // nothing more will come
    std::atomic<int> failure_{0};  // for good
    uint32_t recordsSinceSleep_ = 0;
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_FILE_RESOURCE_FILE_H

#include "platform/host/iam/file/ResourceFile.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "platform/host/iam/Log.h"
#include "platform/host/iam/RuntimeDirectory.h"
#include "platform/host/iam/wire/Fence.h"
#include "platform/host/iam/wire/Prefetch.h"
#include "platform/host/iam/wire/SharedMemory.h"

namespace host_platform::iam {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

// An open takes one second at most; the last tenth is for the processor to come back after a wait that was in vain.
constexpr auto OPEN_TIME = std::chrono::milliseconds(900);

// Connecting to a local socket waits only while the service's backlog is full; the send timeout bounds that.
Status ConnectSocket(int socket, const Path& path, Clock::time_point deadline)
{
    const sockaddr_un address = AddressOf(path);
    for (;;) {
        const auto left = std::chrono::duration_cast<microseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            return {ETIMEDOUT, "the service accepts nobody"};
        }
        timeval timeout{};
        timeout.tv_sec = left / 1'000'000;
        timeout.tv_usec = left % 1'000'000;
        if (setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0) {
            return {errno, "the time for connecting cannot be bounded"};
        }
        if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            return {};
        }
        if (errno != EINTR && errno != EAGAIN) {
            return {errno, "its socket cannot be connected to"};
        }
    }
}

Status WaitForMessage(int socket, Clock::time_point deadline)
{
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            return {ETIMEDOUT, "the service does not answer"};
        }
        pollfd waiting{socket, POLLIN, 0};
        const int ready = poll(&waiting, 1, static_cast<int>(left));
        if (ready > 0) {
            return {};
        }
        if (ready < 0 && errno != EINTR) {
            return {errno, "the wait for the service failed"};
        }
    }
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------------------
// Connecting

Status ResourceFile::Connect(const std::string& resource)
{
    const Clock::time_point deadline = Clock::now() + OPEN_TIME;
    resource_ = resource;
    Path path{};
    Status status = FindSocketPath(Missing::REFUSE, resource.c_str(), path);
    if (status.Failed()) {
        return status;
    }
    socket_ = AboveStandard(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!socket_) {
        return {errno, "a socket cannot be made"};
    }
    status = ConnectSocket(socket_.Get(), path, deadline);
    if (!status.Failed()) {
        status = CheckPeerUser(socket_.Get());
    }
    return status.Failed() ? status : Handshake(deadline);
}

Status ResourceFile::Handshake(Clock::time_point deadline)
{
    Status status = SendMessage(socket_.Get(), MessageType::HELLO);
    // Three messages at most: each type is sound once.
    for (bool connected = false; !status.Failed() && !connected;) {
        status = WaitForMessage(socket_.Get(), deadline);
        ReceivedMessage received;
        if (!status.Failed()) {
            status = ReceiveMessage(socket_.Get(), received);
        }
        if (!status.Failed()) {
            status = Take(received, connected);
        } else if (status.error == EAGAIN) {
            status = {};
        }
    }
    return status.error == EPIPE ? Status{ECONNREFUSED, "the service has hung up"} : status;
}

Status ResourceFile::Take(ReceivedMessage& received, bool& connected)
{
    if (received.type == MessageType::RING && !hasRing_) {
        return TakeRing(received);
    }
    if (received.type == MessageType::POOL && hasRing_ && !pool_) {
        return TakePool(received);
    }
    if (received.type == MessageType::CONNECTED && hasRing_ && !connected) {
        connected = true;
        return {};
    }
    return {EPROTO, "a message came out of turn"};
}

Status ResourceFile::TakeRing(ReceivedMessage& received)
{
    Mapping memory;
    Status status = MapSharedMemory(received.descriptors[0].Get(), received.message.bytes, Sharing::READ_WRITE, memory);
    if (!status.Failed()) {
        status = bell_.Adopt(received.descriptors[1].Get());
    }
    if (status.Failed()) {
        return status;
    }
    ring_ = RingReader(std::move(memory), received.message.count);
    hasRing_ = true;
    return SendMessage(socket_.Get(), MessageType::READY);
}

Status ResourceFile::TakePool(const ReceivedMessage& received)
{
    const Message& message = received.message;
    poolShape_ = {message.bytes, message.count, message.stride};
    return MapSharedMemory(received.descriptors[0].Get(), message.bytes, Sharing::READ_ONLY, pool_);
}

// ---------------------------------------------------------------------------------------------------------------------
// Reading

int64_t ResourceFile::Read(void* buffer, size_t length)
{
    // Acquire and release: what one reading thread knows of the ring passes to the next.
    if (reading_.exchange(true, std::memory_order_acquire)) {
        return -EBUSY;
    }
    const int64_t result = ReadAlone(buffer, length);
    reading_.store(false, std::memory_order_release);
    return result;
}

int64_t ResourceFile::ReadAlone(void* buffer, size_t length)
{
    for (;;) {
        if (Closed()) {
            return -EBADF;
        }
        if (failure_ != 0) {
            return -failure_;
        }
        // Asked for before the last look into the ring, because what was queued before the hang-up is delivered.
        const bool nothingMore = hungUp_;
        switch (ring_.Look()) {
            case RingReader::State::READY:
                return Deliver(buffer, length);
            case RingReader::State::BROKEN:
                return -Broken("its count makes no sense");
            case RingReader::State::EMPTY:
                break;
        }
        if (nothingMore) {
            return ring_.RevokedMeanwhile() ? -ESTALE : -EPIPE;
        }
        const int error = Sleep();
        if (error != 0) {
            return -error;
        }
    }
}

int64_t ResourceFile::Deliver(void* buffer, size_t length)
{
    if (!pool_) {
        // The message with the pool was sent before the first record was queued.
        const int error = HearService();
        if (error != 0) {
            return -error;
        }
        if (!pool_) {
            return Closed() ? -EBADF : -Broken("it queues records before there is a pool");
        }
    }
    const auto place = LocateRecord(ring_.Front(), poolShape_);
    if (!place) {
        return ring_.RevokedMeanwhile() ? -ESTALE : -Broken("an entry of its ring makes no sense");
    }
    if (place->length > length) {
        return -EMSGSIZE;
    }
    FetchAhead();
    if (place->length != 0) {
        memcpy(buffer, pool_.Bytes() + place->offset, place->length);
    }
    // The service takes blocks back when this connection ends, by a close on this side or a cut on its own. Both leave
    // their mark before the first byte of another record is written: whoever copied such a byte finds the mark.
    if (ring_.RevokedMeanwhile()) {
        return Closed() ? -EBADF : -ESTALE;
    }
    if (Closed()) {
        return -EBADF;
    }
    ring_.Pop();
    return place->length;
}

// Starts to bring the next record over from the other processor while this one is worked on.
void ResourceFile::FetchAhead() const
{
    if (!ring_.HasSecond()) {
        return;
    }
    const auto place = LocateRecord(ring_.Second(), poolShape_);
    if (place) {
        Prefetch<Purpose::READING>(pool_.Bytes() + place->offset, place->length);
    }
}

// Returns once there is something to look at: a record, a message, a hang-up, a close.
int ResourceFile::Sleep()
{
    if (ring_.FallAsleep() != RingReader::State::EMPTY) {
        ring_.WakeUp();
        return 0;
    }
    pollfd waiting[] = {{bell_.Fd(), POLLIN, 0}, {socket_.Get(), POLLIN | POLLRDHUP, 0}};
    const int ready = poll(waiting, std::size(waiting), -1);
    const int error = errno;
    ring_.WakeUp();
    if (ready < 0) {
        return error == EINTR ? 0 : error;
    }
    if ((waiting[0].revents & POLLIN) != 0) {
        bell_.Drain();
    } else if (waiting[0].revents != 0) {
        hungUp_ = true;  // nobody holds the other end of the bell
    }
    return waiting[1].revents != 0 ? HearService() : 0;
}

// Takes what the service has sent. 0 also when there was nothing.
int ResourceFile::HearService()
{
    ReceivedMessage received;
    bool connected = true;
    Status status = ReceiveMessage(socket_.Get(), received);
    if (status.error == EAGAIN) {
        return 0;
    }
    if (status.error == EPIPE) {
        hungUp_ = true;
        return 0;
    }
    if (!status.Failed()) {
        status = Take(received, connected);
    }
    if (status.Failed() && status.error != EPROTO) {
        failure_ = status.error;  // the message is gone: there is no second attempt
    }
    return status.error == EPROTO ? Broken(status.cause) : status.error;
}

int ResourceFile::Broken(const char* cause)
{
    failure_ = EPROTO;
    Log("%s: the service is not to be trusted: %s", resource_.c_str(), cause);
    return EPROTO;
}

void ResourceFile::Close()
{
    // Before the shutdown: a reader that copied from a block which the service took back on hearing of it, a system
    // call and another process later, finds the flag.
    closed_.store(true, std::memory_order_seq_cst);
    shutdown(socket_.Get(), SHUT_RDWR);
}

}  // namespace host_platform::iam

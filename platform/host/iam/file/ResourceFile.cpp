#include "platform/host/iam/file/ResourceFile.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/host/iam/Log.h"
#include "platform/host/iam/wire/Prefetch.h"
#include "platform/host/iam/wire/SharedMemory.h"

namespace host_platform::iam {
namespace {

// An open takes one second at most; the last tenth is for the processor to come back after a wait that was in vain.
constexpr auto OPEN_TIME = std::chrono::milliseconds(900);

// Inside a stream the next record is often so near that it comes while a reader would fall asleep. Outside of one,
// looking on costs the processor's time and gains nothing.
constexpr uint32_t RECORDS_OF_A_STREAM = 16;
constexpr int MOST_LOOKS = 100;

constexpr uint32_t RECORDS_AHEAD = 2;

// Connecting to a local socket waits only while the service's backlog is full; the send timeout bounds that.
Status ConnectSocket(const UniqueFd& socket, const Path& path, Clock::time_point deadline)
{
    const sockaddr_un address = AddressOf(path);
    do {
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
        const timeval timeout{left / 1'000'000, left % 1'000'000};
        if (left <= 0) {
            return {ETIMEDOUT, "the service accepts nobody"};
        }
        if (setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout)) == 0 &&
            connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            return {};
        }
    } while (errno == EINTR || errno == EAGAIN);
    return {errno, "its socket cannot be connected to"};
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------------------
// One use after the other

bool ResourceFile::Claim()
{
    const uint64_t state = state_.load(std::memory_order_acquire);  // pairs with the end of the last use
    if (state % USE_STEP != CLOSED) {
        return false;
    }
    state_.store(state + USE_STEP + HELD);
    return true;
}

void ResourceFile::Publish()
{
    state_.store(Use() * USE_STEP);
}

void ResourceFile::Abandon()
{
    Leave(HELD);
}

void ResourceFile::Close()
{
    // Before the shutdown: a reader that copied from a block which the service took back on hearing of it, a system
    // call and another process later, finds the flag.
    state_.fetch_or(CLOSED | HELD);
    shutdown(socket_.Get(), SHUT_RDWR);
    // At once; whom this misses because it is just falling asleep, the watcher wakes, which the shutdown has called.
    const BellWord* const word = sleepsAt_.load();
    if (word != nullptr) {
        WakeSleepers(word);
    }
    Leave(HELD);
}

// Whoever is the last inside after a close releases everything: nobody comes in any more.
void ResourceFile::Leave(uint64_t flag)
{
    // Acquire and release: what one thread knows of the ring passes to the next, and to whoever releases it.
    uint64_t state = state_.load(std::memory_order_acquire);
    while (state % USE_STEP != (CLOSED | flag)) {
        if (state_.compare_exchange_weak(state, state & ~flag, std::memory_order_acq_rel, std::memory_order_acquire)) {
            return;
        }
    }
    Release();
    state_.store(state & ~flag, std::memory_order_release);
}

void ResourceFile::Release()
{
    socket_.Reset();
    ring_ = RingReader();
    pool_ = Mapping();
    poolShape_ = {};
    attention_ = false;
    connected_ = false;
    hungUp_ = false;
    failure_ = 0;
    recordsSinceSleep_ = 0;
}

bool ResourceFile::WakeInattentive() const
{
    const BellWord* const word = sleepsAt_.load();
    if (word == nullptr || !attention_.load()) {
        return false;
    }
    WakeSleepers(word);
    return true;
}

// ---------------------------------------------------------------------------------------------------------------------
// Connecting

Status ResourceFile::Connect(const char* resource, Role role)
{
    const Clock::time_point deadline = Clock::now() + OPEN_TIME;
    Path path{};
    UniqueFd directory;
    int pid = 0;
    const Status found =
        OpenRuntimeDirectory(Missing::REFUSE, path, directory).Then([&] { return AppendName(resource, path); });
    if (found.Failed()) {
        return found;
    }
    snprintf(resource_.text, sizeof(resource_.text), "%s", resource);
    socket_ = AboveStandard(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const Message hello = Compose(MessageType::HELLO, 0, static_cast<uint32_t>(role), 0);
    Status status = Check(socket_.Get() >= 0, "a socket cannot be made")
                        .Then([&] { return ConnectSocket(socket_, path, deadline); })
                        .Then([&] { return CheckPeerUser(socket_, pid); })
                        .Then([&] { return SendMessage(socket_, hello); });
    while (!status.Failed() && !connected_) {  // three messages at most: each type is sound once
        status = WaitForMessage(socket_, deadline).Then([&] { return HearMessage(); });
    }
    return status.error == EPIPE ? Status{ECONNREFUSED, "the service has hung up"} : status;
}

Status ResourceFile::HearMessage()
{
    ReceivedMessage received;
    return ReceiveMessage(socket_, received).Then([&] { return Take(received); });
}

Status ResourceFile::Take(const ReceivedMessage& received)
{
    if (received.type == MessageType::RING && !ring_) {
        return TakeRing(received);
    }
    if (received.type == MessageType::POOL && ring_ && !pool_) {
        return TakePool(received);
    }
    if (received.type == MessageType::CONNECTED && ring_ && !connected_) {
        connected_ = true;
        return {};
    }
    return {EPROTO, "a message came out of turn"};
}

Status ResourceFile::TakeRing(const ReceivedMessage& received)
{
    Mapping service;
    Mapping own;
    return MapSharedMemory(received.descriptors[0], received.message.bytes, Writer::SERVICE, service)
        .Then([&] { return MapSharedMemory(received.descriptors[1], READER_WORDS_BYTES, Writer::READER, own); })
        .Then([&] {
            ring_ = RingReader(std::move(service), std::move(own), received.message.count);
            return SendMessage(socket_, Compose(MessageType::READY, 0, 0, 0));
        });
}

Status ResourceFile::TakePool(const ReceivedMessage& received)
{
    const Message& message = received.message;
    poolShape_ = {message.bytes, message.count, message.stride};
    return MapSharedMemory(received.descriptors[0], message.bytes, Writer::SERVICE, pool_);
}

// ---------------------------------------------------------------------------------------------------------------------
// Reading

int64_t ResourceFile::Read(uint64_t use, void* buffer, size_t length)
{
    uint64_t state = use * USE_STEP;
    // Acquire, and release when it leaves: see there.
    while (!state_.compare_exchange_weak(state, state | READING, std::memory_order_acquire)) {
        if (state / USE_STEP != use || (state & CLOSED) != 0) {
            return -EBADF;
        }
        if ((state & READING) != 0) {
            return -EBUSY;
        }
    }
    const int64_t result = ReadAlone(buffer, length);
    Leave(READING);
    return result;
}

int64_t ResourceFile::ReadAlone(void* buffer, size_t length)
{
    for (;;) {
        if (IsClosed()) {
            return -EBADF;
        }
        // Relaxed: it orders nothing.
        const int failure = failure_.load(std::memory_order_relaxed);
        if (failure != 0) {
            return -failure;
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
            return -Fail(ring_.RevokedMeanwhile() ? ESTALE : EPIPE);
        }
        if (StreamGoesOn()) {
            continue;
        }
        const int error = attention_.load() ? HearService() : Sleep();
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
            return IsClosed() ? -EBADF : -Broken("it queues records before there is a pool");
        }
    }
    const auto place = LocateRecord(ring_.Front(), poolShape_);
    if (!place) {
        return ring_.RevokedMeanwhile() ? -Fail(ESTALE) : -Broken("an entry of its ring makes no sense");
    }
    if (place->length > length) {
        return -EMSGSIZE;
    }
    FetchAhead();
    if (place->length != 0) {
        std::memcpy(buffer, pool_.get() + place->offset, place->length);
    }
    // The service takes blocks back when this connection ends, by a close on this side or a cut on its own. Both leave
    // their mark before the first byte of another record is written: whoever copied such a byte finds the mark.
    if (ring_.RevokedMeanwhile()) {
        return IsClosed() ? -EBADF : -Fail(ESTALE);
    }
    if (IsClosed()) {
        return -EBADF;
    }
    ring_.Pop();
    ++recordsSinceSleep_;
    return place->length;
}

// Starts to bring a record to come over from the other processor while this one and the next are worked on.
void ResourceFile::FetchAhead() const
{
    if (!ring_.HasAhead(RECORDS_AHEAD)) {
        return;
    }
    const auto place = LocateRecord(ring_.Ahead(RECORDS_AHEAD), poolShape_);
    if (place) {
        Prefetch<false>(pool_.get() + place->offset, place->length);
    }
}

bool ResourceFile::StreamGoesOn()
{
    if (recordsSinceSleep_ < RECORDS_OF_A_STREAM) {
        return false;
    }
    for (int look = 0; look < MOST_LOOKS; ++look) {
        if (ring_.Look() != RingReader::State::EMPTY) {
            return true;
        }
    }
    return false;
}

// Returns once there may be something to look at: a record, a message, a hang-up, a close.
int ResourceFile::Sleep()
{
    recordsSinceSleep_ = 0;
    // What is stored here is stored before what is loaded then, and the watcher and a close do it the other way round:
    // either this thread stays awake, or they know where it sleeps.
    sleepsAt_.store(ring_.Word());
    int error = 0;
    if (ring_.FallAsleep() == RingReader::State::EMPTY && !attention_.load() && (state_.load() & CLOSED) == 0) {
        error = ring_.Sleep();
    }
    sleepsAt_.store(nullptr);
    ring_.WakeUp();
    return error;
}

// Takes what the service has sent, to the last message. 0 also when there was nothing.
int ResourceFile::HearService()
{
    attention_.store(false);
    Status status;
    while (!status.Failed()) {
        status = HearMessage();
    }
    switch (status.error) {
        case EAGAIN:
            return 0;
        case EPIPE:
            hungUp_ = true;
            return 0;
        case EPROTO:
            return Broken(status.cause);
        default:
            return Fail(status.error);  // the message is gone: there is no second attempt
    }
}

int ResourceFile::Fail(int error)
{
    failure_ = error;
    return error;
}

int ResourceFile::Broken(const char* cause)
{
    IAM_LOG("%s: the service is not to be trusted: %s", resource_.text, cause);
    return Fail(EPROTO);
}

}  // namespace host_platform::iam

// A way to carry records from one process to another, as a user would pick it. One pair of ends per transport behind
// this.
#ifndef REPORT_EVENT_BENCHMARKS_TRANSPORT_H
#define REPORT_EVENT_BENCHMARKS_TRANSPORT_H

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <utility>

#include "benchmarks/common/Sending.h"
#include "benchmarks/common/System.h"

namespace bench {

// This machine does not offer the transport.
class Unavailable : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Returns the length of the next record, waiting for it, or 0 once the sender has ended and all has been read.
class Receiver {
public:
    virtual ~Receiver() = default;
    virtual size_t Receive(unsigned char* buffer, size_t capacity) = 0;
};

// Made before the fork, so that both processes hold it; each opens its own end once and keeps the transport meanwhile.
// The receiver's end is open before the sender opens its own.
class Transport {
public:
    virtual ~Transport() = default;
    virtual std::unique_ptr<Receiver> OpenReceiver() = 0;
    virtual std::unique_ptr<Sender> OpenSender() = 0;
};

// A transport whose two ends are made from what both processes hold.
template <class SenderEnd, class ReceiverEnd, class Held>
class TransportOf : public Transport {
public:
    template <class... Arguments>
    explicit TransportOf(Arguments&&... arguments) : held_{std::forward<Arguments>(arguments)...}
    {
    }
    std::unique_ptr<Receiver> OpenReceiver() override
    {
        return std::make_unique<ReceiverEnd>(held_);
    }
    std::unique_ptr<Sender> OpenSender() override
    {
        return std::make_unique<SenderEnd>(held_);
    }

private:
    Held held_;
};

// What the two processes of most transports hold: the receiver takes one descriptor and closes the other, the sender
// the other way round.
struct DescriptorPair {
    FileDescriptor receiving;
    FileDescriptor sending;

    FileDescriptor TakeReceiving()
    {
        sending.Close();
        return std::move(receiving);
    }
    FileDescriptor TakeSending()
    {
        receiving.Close();
        return std::move(sending);
    }
};

std::unique_ptr<Transport> MakeSeqPacket(size_t recordSize);
std::unique_ptr<Transport> MakePacketPipe(size_t recordSize);
std::unique_ptr<Transport> MakeMessageQueue(size_t recordSize);
std::unique_ptr<Transport> MakeZeroMq(size_t recordSize);
std::unique_ptr<Transport> MakeIceoryx(size_t recordSize);
std::unique_ptr<Transport> MakeSdBus(size_t recordSize);
std::unique_ptr<Transport> MakeRingWithEventFd(size_t recordSize);
std::unique_ptr<Transport> MakeRingWithFutex(size_t recordSize);

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_TRANSPORT_H

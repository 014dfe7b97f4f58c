// The transports that the kernel offers as they are: one system call sends a record, one receives it.
#include <fcntl.h>
#include <mqueue.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>

#include "benchmarks/peers/Transport.h"

namespace bench {
namespace {

constexpr int PIPE_BYTES = 1 << 20;  // what an unprivileged process may ask for by default
constexpr long QUEUE_RECORDS_MAX = 128;

class WriteSender : public Sender {
public:
    explicit WriteSender(DescriptorPair& pair) : fd_(pair.TakeSending())
    {
    }
    void Send(const unsigned char* data, size_t size) override
    {
        Check(write(fd_.Get(), data, size), "write");
    }

private:
    FileDescriptor fd_;
};

class ReadReceiver : public Receiver {
public:
    explicit ReadReceiver(DescriptorPair& pair) : fd_(pair.TakeReceiving())
    {
    }
    size_t Receive(unsigned char* buffer, size_t capacity) override
    {
        return static_cast<size_t>(Check(read(fd_.Get(), buffer, capacity), "read"));
    }

private:
    FileDescriptor fd_;
};

// A packet socket, or a pipe in packet mode: each write is read back whole by one read.
using Packets = TransportOf<WriteSender, ReadReceiver, DescriptorPair>;

long QueueRecords()
{
    long limit = 10;
    std::ifstream("/proc/sys/fs/mqueue/msg_max") >> limit;
    return std::clamp(limit, 1L, QUEUE_RECORDS_MAX);
}

// A queue is a descriptor. Its name is gone before anybody uses it: the two processes share the descriptor.
FileDescriptor MakeQueue(size_t recordSize)
{
    const std::string name = "/report-event-peers-" + std::to_string(getpid());
    mq_attr attributes{};
    attributes.mq_maxmsg = QueueRecords();
    attributes.mq_msgsize = static_cast<long>(recordSize);
    FileDescriptor queue(mq_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600, &attributes));
    if (queue.Get() < 0) {
        throw Unavailable("mq_open: " + std::generic_category().message(errno));
    }
    mq_unlink(name.c_str());
    return queue;
}

class QueueSender : public Sender {
public:
    explicit QueueSender(const FileDescriptor& queue) : queue_(queue.Get())
    {
    }
    ~QueueSender() override
    {
        mq_send(queue_, "", 0, 0);  // an empty message ends the stream
    }
    void Send(const unsigned char* data, size_t size) override
    {
        Check(mq_send(queue_, reinterpret_cast<const char*>(data), size, 0), "mq_send");
    }

private:
    const mqd_t queue_;
};

class QueueReceiver : public Receiver {
public:
    explicit QueueReceiver(const FileDescriptor& queue) : queue_(queue.Get())
    {
    }
    size_t Receive(unsigned char* buffer, size_t capacity) override
    {
        return static_cast<size_t>(
            Check(mq_receive(queue_, reinterpret_cast<char*>(buffer), capacity, nullptr), "mq_receive"));
    }

private:
    const mqd_t queue_;
};

}  // namespace

std::unique_ptr<Transport> MakeSeqPacket(size_t)
{
    int fds[2];
    Check(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), "socketpair");
    return std::make_unique<Packets>(FileDescriptor(fds[0]), FileDescriptor(fds[1]));
}

std::unique_ptr<Transport> MakePacketPipe(size_t)
{
    int fds[2];
    Check(pipe2(fds, O_DIRECT), "pipe2");
    fcntl(fds[1], F_SETPIPE_SZ, PIPE_BYTES);  // where that is not allowed, the default stays
    return std::make_unique<Packets>(FileDescriptor(fds[0]), FileDescriptor(fds[1]));
}

std::unique_ptr<Transport> MakeMessageQueue(size_t recordSize)
{
    return std::make_unique<TransportOf<QueueSender, QueueReceiver, FileDescriptor>>(MakeQueue(recordSize));
}

}  // namespace bench

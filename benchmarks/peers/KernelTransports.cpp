// The transports that the kernel offers as they are: one system call sends a record, one receives it.
#include <fcntl.h>
#include <mqueue.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <utility>

#include "benchmarks/common/System.h"
#include "benchmarks/peers/Transport.h"

namespace bench {
namespace {

constexpr int PIPE_BYTES = 1 << 20;  // what an unprivileged process may ask for by default
constexpr long QUEUE_RECORDS_MAX = 128;

using FdPair = std::pair<FileDescriptor, FileDescriptor>;

FdPair MakePipe(int flags)
{
    int fds[2];
    Check(pipe2(fds, flags), "pipe2");
    return {FileDescriptor(fds[0]), FileDescriptor(fds[1])};
}

FdPair MakeSocketPair()
{
    int fds[2];
    Check(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), "socketpair");
    return {FileDescriptor(fds[0]), FileDescriptor(fds[1])};
}

class WriteSender : public Sender {
public:
    explicit WriteSender(FileDescriptor fd) : fd_(std::move(fd))
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
    explicit ReadReceiver(FileDescriptor fd) : fd_(std::move(fd))
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
class PacketFds : public Transport {
public:
    explicit PacketFds(FdPair fds) : fds_(std::move(fds))
    {
    }
    std::unique_ptr<Receiver> OpenReceiver() override
    {
        fds_.second.Close();
        return std::make_unique<ReadReceiver>(std::move(fds_.first));
    }
    std::unique_ptr<Sender> OpenSender() override
    {
        fds_.first.Close();
        return std::make_unique<WriteSender>(std::move(fds_.second));
    }

private:
    FdPair fds_;
};

long QueueRecords()
{
    long limit = 10;
    std::ifstream("/proc/sys/fs/mqueue/msg_max") >> limit;
    return std::clamp(limit, 1L, QUEUE_RECORDS_MAX);
}

class QueueSender : public Sender {
public:
    explicit QueueSender(mqd_t queue) : queue_(queue)
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
    explicit QueueReceiver(mqd_t queue) : queue_(queue)
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

// Its name is gone before anybody uses it: the two processes share the descriptor.
class MessageQueue : public Transport {
public:
    explicit MessageQueue(size_t recordSize)
    {
        const std::string name = "/report-event-peers-" + std::to_string(getpid());
        mq_attr attributes{};
        attributes.mq_maxmsg = QueueRecords();
        attributes.mq_msgsize = static_cast<long>(recordSize);
        queue_ = mq_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600, &attributes);
        if (queue_ == mqd_t{-1}) {
            throw Unavailable("mq_open: " + std::generic_category().message(errno));
        }
        mq_unlink(name.c_str());
    }
    MessageQueue(const MessageQueue&) = delete;
    MessageQueue& operator=(const MessageQueue&) = delete;
    ~MessageQueue() override
    {
        mq_close(queue_);
    }
    std::unique_ptr<Receiver> OpenReceiver() override
    {
        return std::make_unique<QueueReceiver>(queue_);
    }
    std::unique_ptr<Sender> OpenSender() override
    {
        return std::make_unique<QueueSender>(queue_);
    }

private:
    mqd_t queue_;
};

}  // namespace

std::unique_ptr<Transport> MakeSeqPacket(size_t)
{
    return std::make_unique<PacketFds>(MakeSocketPair());
}

std::unique_ptr<Transport> MakePacketPipe(size_t)
{
    FdPair fds = MakePipe(O_DIRECT);
    fcntl(fds.second.Get(), F_SETPIPE_SZ, PIPE_BYTES);  // where that is not allowed, the default stays
    return std::make_unique<PacketFds>(std::move(fds));
}

std::unique_ptr<Transport> MakeMessageQueue(size_t recordSize)
{
    return std::make_unique<MessageQueue>(recordSize);
}

}  // namespace bench

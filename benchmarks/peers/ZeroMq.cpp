// ZeroMQ as its users would set it up between two processes of one machine: PUSH and PULL over ipc, nothing dropped.
#include <unistd.h>
#include <zmq.h>

#include <string>

#include "benchmarks/peers/Transport.h"

namespace bench {
namespace {

// A context with its one socket. Closing waits until everything sent has been taken over by the other process.
class Socket {
public:
    explicit Socket(int type) : socket_(zmq_socket(context_, type))
    {
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket()
    {
        zmq_close(socket_);
        zmq_ctx_term(context_);
    }
    void* Get() const
    {
        return socket_;
    }

private:
    void* const context_ = zmq_ctx_new();
    void* const socket_;
};

class PushSender : public Sender {
public:
    explicit PushSender(const std::string& address)
    {
        const int onlyConnected = 1;
        Check(zmq_setsockopt(socket_.Get(), ZMQ_IMMEDIATE, &onlyConnected, sizeof(onlyConnected)), "ZMQ_IMMEDIATE");
        Check(zmq_connect(socket_.Get(), address.c_str()), "zmq_connect");
        zmq_pollitem_t connected{socket_.Get(), 0, ZMQ_POLLOUT, 0};
        Check(zmq_poll(&connected, 1, -1), "zmq_poll");
    }
    ~PushSender() override
    {
        zmq_send(socket_.Get(), "", 0, 0);  // an empty message ends the stream
    }
    void Send(const unsigned char* data, size_t size) override
    {
        Check(zmq_send(socket_.Get(), data, size, 0), "zmq_send");
    }

private:
    Socket socket_{ZMQ_PUSH};
};

class PullReceiver : public Receiver {
public:
    explicit PullReceiver(const std::string& address)
    {
        Check(zmq_bind(socket_.Get(), address.c_str()), "zmq_bind");
    }
    size_t Receive(unsigned char* buffer, size_t capacity) override
    {
        return static_cast<size_t>(Check(zmq_recv(socket_.Get(), buffer, capacity, 0), "zmq_recv"));
    }

private:
    Socket socket_{ZMQ_PULL};
};

}  // namespace

std::unique_ptr<Transport> MakeZeroMq(size_t)
{
    // An abstract name: nothing to remove afterwards.
    return std::make_unique<TransportOf<PushSender, PullReceiver, const std::string>>("ipc://@report-event-peers-" +
                                                                                      std::to_string(getpid()));
}

}  // namespace bench

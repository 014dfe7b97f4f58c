// sd-bus between two processes without a bus daemon: each record is the array of bytes of one signal.
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include "benchmarks/common/System.h"
#include "benchmarks/peers/Transport.h"

namespace bench {
namespace {

constexpr uint64_t NO_TIMEOUT = UINT64_MAX;

// Passes a result of 0 or more through; sd-bus returns its errors.
int CheckBus(int result, const char* what)
{
    if (result < 0) {
        throw std::system_error(-result, std::generic_category(), what);
    }
    return result;
}

// One end of the connection. The first calls shake hands, so both ends must be open by then.
class Bus {
public:
    Bus(FileDescriptor fd, bool server)
    {
        CheckBus(sd_bus_new(&bus_), "sd_bus_new");
        CheckBus(sd_bus_set_fd(bus_, fd.Get(), fd.Get()), "sd_bus_set_fd");
        fd.Release();
        sd_id128_t id{};
        CheckBus(server ? sd_id128_randomize(&id) : 0, "sd_id128_randomize");
        CheckBus(sd_bus_set_server(bus_, server, id), "sd_bus_set_server");
        CheckBus(sd_bus_set_anonymous(bus_, 1), "sd_bus_set_anonymous");
        CheckBus(sd_bus_start(bus_), "sd_bus_start");
    }
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;
    ~Bus()
    {
        sd_bus_flush_close_unref(bus_);
    }
    sd_bus* Get() const
    {
        return bus_;
    }

private:
    sd_bus* bus_ = nullptr;
};

class Message {
public:
    Message() = default;
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    ~Message()
    {
        sd_bus_message_unref(message_);
    }
    sd_bus_message** Out()
    {
        return &message_;
    }
    sd_bus_message* Get() const
    {
        return message_;
    }

private:
    sd_bus_message* message_ = nullptr;
};

class BusSender : public Sender {
public:
    explicit BusSender(FileDescriptor fd) : bus_(std::move(fd), false)
    {
        CheckBus(sd_bus_flush(bus_.Get()), "sd_bus_flush");
    }
    void Send(const unsigned char* data, size_t size) override
    {
        Message message;
        CheckBus(sd_bus_message_new_signal(bus_.Get(), message.Out(), "/report/event", "report.event", "Record"),
                 "sd_bus_message_new_signal");
        CheckBus(sd_bus_message_append_array(message.Get(), 'y', data, size), "sd_bus_message_append_array");
        CheckBus(sd_bus_send(bus_.Get(), message.Get(), nullptr), "sd_bus_send");
        CheckBus(sd_bus_flush(bus_.Get()), "sd_bus_flush");  // waits when the socket had no room
    }

private:
    Bus bus_;
};

class BusReceiver : public Receiver {
public:
    explicit BusReceiver(FileDescriptor fd) : bus_(std::move(fd), true)
    {
    }
    size_t Receive(unsigned char* buffer, size_t capacity) override
    {
        for (;;) {
            Message message;
            const int done = sd_bus_process(bus_.Get(), message.Out());
            if (done == -ECONNRESET || done == -ENOTCONN) {
                return 0;
            }
            CheckBus(done, "sd_bus_process");
            if (message.Get() != nullptr && sd_bus_message_is_signal(message.Get(), "report.event", "Record") > 0) {
                return Copy(message.Get(), buffer, capacity);
            }
            if (done == 0) {
                CheckBus(sd_bus_wait(bus_.Get(), NO_TIMEOUT), "sd_bus_wait");
            }
        }
    }

private:
    static size_t Copy(sd_bus_message* message, unsigned char* buffer, size_t capacity)
    {
        const void* data = nullptr;
        size_t size = 0;
        CheckBus(sd_bus_message_read_array(message, 'y', &data, &size), "sd_bus_message_read_array");
        if (size > capacity) {
            throw std::runtime_error("a record does not fit");
        }
        std::memcpy(buffer, data, size);
        return size;
    }

    Bus bus_;
};

class SdBus : public Transport {
public:
    SdBus()
    {
        int fds[2];
        Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), "socketpair");
        receiving_ = FileDescriptor(fds[0]);
        sending_ = FileDescriptor(fds[1]);
    }
    std::unique_ptr<Receiver> OpenReceiver() override
    {
        sending_.Close();
        return std::make_unique<BusReceiver>(std::move(receiving_));
    }
    std::unique_ptr<Sender> OpenSender() override
    {
        receiving_.Close();
        return std::make_unique<BusSender>(std::move(sending_));
    }

private:
    FileDescriptor receiving_;
    FileDescriptor sending_;
};

}  // namespace

std::unique_ptr<Transport> MakeSdBus(size_t)
{
    return std::make_unique<SdBus>();
}

}  // namespace bench

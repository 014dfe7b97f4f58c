// sd-bus between two processes without a bus daemon: each record is the array of bytes of one signal.
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>

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

template <class Type, Type* (*Unref)(Type*)>
struct Unreferencing {
    void operator()(Type* object) const
    {
        Unref(object);
    }
};
using Bus = std::unique_ptr<sd_bus, Unreferencing<sd_bus, sd_bus_flush_close_unref>>;
using Message = std::unique_ptr<sd_bus_message, Unreferencing<sd_bus_message, sd_bus_message_unref>>;

// One end of the connection. Its first calls shake hands, so both ends must be open by then.
Bus OpenBus(FileDescriptor fd, bool server)
{
    sd_bus* made = nullptr;
    CheckBus(sd_bus_new(&made), "sd_bus_new");
    Bus bus(made);
    CheckBus(sd_bus_set_fd(made, fd.Get(), fd.Get()), "sd_bus_set_fd");
    fd.Release();
    sd_id128_t id{};
    CheckBus(server ? sd_id128_randomize(&id) : 0, "sd_id128_randomize");
    CheckBus(sd_bus_set_server(made, server, id), "sd_bus_set_server");
    CheckBus(sd_bus_set_anonymous(made, 1), "sd_bus_set_anonymous");
    CheckBus(sd_bus_start(made), "sd_bus_start");
    return bus;
}

class BusSender : public Sender {
public:
    explicit BusSender(DescriptorPair& pair) : bus_(OpenBus(pair.TakeSending(), false))
    {
        CheckBus(sd_bus_flush(bus_.get()), "sd_bus_flush");
    }
    void Send(const unsigned char* data, size_t size) override
    {
        sd_bus_message* made = nullptr;
        CheckBus(sd_bus_message_new_signal(bus_.get(), &made, "/report/event", "report.event", "Record"),
                 "sd_bus_message_new_signal");
        const Message message(made);
        CheckBus(sd_bus_message_append_array(made, 'y', data, size), "sd_bus_message_append_array");
        CheckBus(sd_bus_send(bus_.get(), made, nullptr), "sd_bus_send");
        CheckBus(sd_bus_flush(bus_.get()), "sd_bus_flush");  // waits when the socket had no room
    }

private:
    Bus bus_;
};

class BusReceiver : public Receiver {
public:
    explicit BusReceiver(DescriptorPair& pair) : bus_(OpenBus(pair.TakeReceiving(), true))
    {
    }
    size_t Receive(unsigned char* buffer, size_t capacity) override
    {
        for (;;) {
            sd_bus_message* came = nullptr;
            const int done = sd_bus_process(bus_.get(), &came);
            const Message message(came);
            if (done == -ECONNRESET || done == -ENOTCONN) {
                return 0;
            }
            CheckBus(done, "sd_bus_process");
            if (came != nullptr && sd_bus_message_is_signal(came, "report.event", "Record") > 0) {
                return Copy(came, buffer, capacity);
            }
            if (done == 0) {
                CheckBus(sd_bus_wait(bus_.get(), NO_TIMEOUT), "sd_bus_wait");
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

}  // namespace

std::unique_ptr<Transport> MakeSdBus(size_t)
{
    int fds[2];
    Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), "socketpair");
    return std::make_unique<TransportOf<BusSender, BusReceiver, DescriptorPair>>(FileDescriptor(fds[0]),
                                                                                 FileDescriptor(fds[1]));
}

}  // namespace bench

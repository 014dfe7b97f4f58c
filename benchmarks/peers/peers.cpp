// peers: the same records as road, over what a user would pick instead, and over the floors that bound road.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "benchmarks/common/Arrivals.h"
#include "benchmarks/common/Options.h"
#include "benchmarks/common/Sending.h"
#include "benchmarks/common/StampedRecord.h"
#include "benchmarks/common/TwoProcesses.h"
#include "benchmarks/peers/Transport.h"

namespace bench {
namespace {

constexpr int EXIT_USAGE = 2;
constexpr int EXIT_UNAVAILABLE = 77;

struct Row {
    const char* name;
    const char* description;
    std::unique_ptr<Transport> (*make)(size_t recordSize);
    size_t size = 0;  // of the records, whatever was asked for
};

constexpr Row ROWS[] = {
    {"ring", "floor: a bare ring and pool in shared memory, an eventfd wakes a receiver that sleeps",
     MakeRingWithEventFd},
    {"eventfd", "floor of a wake-up: the same, with nothing in a record but a number and a time", MakeRingWithEventFd,
     StampedRecord::SIZE_MIN},
    {"futex", "floor of a wake-up: the same, but a futex wakes the receiver", MakeRingWithFutex,
     StampedRecord::SIZE_MIN},
    {"seqpacket", "unix-domain SOCK_SEQPACKET socket", MakeSeqPacket},
    {"pipe", "packet-mode pipe of 1 MiB", MakePacketPipe},
    {"mq", "POSIX message queue, as deep as the system lets it be", MakeMessageQueue},
    {"zeromq", "ZeroMQ PUSH and PULL over ipc", MakeZeroMq},
    {"iceoryx", "iceoryx publisher and subscriber, with a daemon of its own", MakeIceoryx},
    {"sdbus", "sd-bus signals over a socket pair, without a bus daemon", MakeSdBus},
};

const Row& FindRow(const std::string& name)
{
    for (const Row& row : ROWS) {
        if (name == row.name) {
            return row;
        }
    }
    throw std::invalid_argument("there is no row '" + name + "'; peers --list names them");
}

void ReceiveAll(Receiver& receiver, const StampedRecord& record, Arrivals& arrivals)
{
    BytesCheck check(record);
    std::vector<unsigned char> buffer(record.Size());
    while (const size_t size = receiver.Receive(buffer.data(), buffer.size())) {
        arrivals.Take(check, {buffer.data(), size}, arrivals.Entry());
    }
    arrivals.Finish();
}

int Run(const Row& row, const Options& options)
{
    HoldEndingSignals();
    const StampedRecord record = StampedRecord::Plain(row.size != 0 ? row.size : options.size);
    const std::unique_ptr<Transport> transport = row.make(record.Size());
    Arrivals arrivals(options);
    SenderProcess sender(
        [&](Link& link) { RunSender(link, options, record, [&] { return transport->OpenSender(); }); });

    const std::unique_ptr<Receiver> receiver = transport->OpenReceiver();
    sender.Line().Say(Word::CONNECT);
    std::exception_ptr failure;
    std::thread thread([&] {
        try {
            ReceiveAll(*receiver, record, arrivals);
        } catch (...) {
            failure = std::current_exception();
            arrivals.Finish();
        }
    });
    Result result;
    try {
        sender.Line().Await(Word::READY);
        result = Supervise(sender.Line(), options, arrivals);
    } catch (const std::exception& error) {
        // The thread may wait for records that never come: there is nothing to join.
        std::fprintf(stderr, "peers: %s: %s\n", row.name, error.what());
        std::_Exit(EXIT_FAILURE);
    }
    thread.join();  // every transport ends its stream
    sender.Finish();
    if (failure) {
        std::rethrow_exception(failure);
    }
    return PrintResult("peers", options, result, arrivals);
}

int Main(int argc, char** argv)
{
    if (argc == 2 && std::string(argv[1]) == "--list") {
        for (const Row& row : ROWS) {
            std::printf("%-10s %s\n", row.name, row.description);
        }
        return EXIT_SUCCESS;
    }
    if (argc != 5) {
        std::fputs("usage: peers ROW throughput|latency SIZE COUNT\n       peers --list\n", stderr);
        return EXIT_USAGE;
    }
    return Run(FindRow(argv[1]), ParseOptions(argv[2], argv[3], argv[4]));
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv)
{
    try {
        return bench::Main(argc, argv);
    } catch (const bench::Unavailable& error) {
        std::fprintf(stderr, "peers: not available here: %s\n", error.what());
        return bench::EXIT_UNAVAILABLE;
    } catch (const std::invalid_argument& error) {
        std::fprintf(stderr, "peers: %s\n", error.what());
        return bench::EXIT_USAGE;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "peers: %s\n", error.what());
        return EXIT_FAILURE;
    }
}

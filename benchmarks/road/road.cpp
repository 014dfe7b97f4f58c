// road: a record's whole way, from a publisher process that calls ReportEvent to the callback of a subscriber process.
//
// This process is the subscriber; it starts the publisher, which is this program again.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "benchmarks/common/Arrivals.h"
#include "benchmarks/common/Options.h"
#include "benchmarks/common/OtherCommits.h"
#include "benchmarks/common/RuntimeDirectory.h"
#include "benchmarks/common/Sending.h"
#include "benchmarks/common/TwoProcesses.h"
#include "benchmarks/road/RoadRecord.h"
#include "report_event/EventRecord.h"
#include "report_event/ReportEventClient.h"
#include "report_event/ReportEventServer.h"

namespace bench {
namespace {

constexpr int EXIT_USAGE = 2;
constexpr size_t POOL_BLOCKS = 1000;
constexpr const char* SENDER_FLAG = "--sender";
constexpr uint64_t FILES_MAX = 64;
constexpr const char* MEMORY_SIZE = "3960";
constexpr const char* MEMORY_COUNT = "2000";  // every block of the pool has been used
constexpr int64_t DRAIN_NS = 10000000000;

using EventCallback = std::function<void(const EventInfo&, const UDSInfoForCpp&)>;
using DeviceCallback = std::function<void(const dsmi_event&)>;

std::string Hex(int code)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%X", static_cast<unsigned>(code));
    return text;
}

// The publisher of libreport_event as a sending end.
class LibrarySender : public Sender {
public:
    explicit LibrarySender(const std::string& resource)
    {
        const int result = publisher_.RegisterResService(resource);
        if (result != 0) {
            throw std::runtime_error("cannot serve " + resource + ": " + Hex(result));
        }
    }
    void Send(const unsigned char* data, size_t size) override
    {
        int result;
        while ((result = publisher_.ReportEvent(reinterpret_cast<const char*>(data),
                                                static_cast<unsigned int>(size))) == NO_FREE_BLOCK) {
            pause_.Wait();
        }
        if (result != 0) {
            throw std::runtime_error("ReportEvent failed: " + Hex(result));
        }
        pause_.Sent();
    }

private:
    ReportEventClient& publisher_ = ReportEventClient::GetInstance();
    PoolPause pause_{POOL_BLOCKS};
};

// Fault-event files, subscribed for as long as this lives.
class Subscription {
public:
    Subscription(std::vector<std::string> files, const EventCallback& onEvent, const DeviceCallback& onDevice)
        : files_(std::move(files))
    {
        const int result = subscriber_.FmRegisterMidReportEventImpl(files_, onEvent, onDevice);
        if (result != 0) {
            subscriber_.FmUnregisterReportEventImpl(files_);
            throw std::runtime_error("cannot subscribe: " + Hex(result));
        }
    }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;
    ~Subscription()
    {
        subscriber_.FmUnregisterReportEventImpl(files_);
    }

private:
    ReportEventServer& subscriber_ = ReportEventServer::GetInstance();
    const std::vector<std::string> files_;
};

// What a process costs in memory.
struct MemoryCost {
    uint64_t privateDirtyKib = 0;   // Private_Dirty of all mappings that are not shared ones
    uint64_t largestSharedKib = 0;  // the size of the largest shared mapping
};

MemoryCost ReadMemoryCost(pid_t pid)
{
    const std::string path = "/proc/" + std::to_string(pid) + "/smaps";
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    MemoryCost cost;
    bool shared = false;
    for (std::string line; std::getline(file, line);) {
        std::istringstream fields(line);
        std::string first;
        std::string second;
        fields >> first >> second;
        if (first.back() != ':') {  // the head of a mapping: its addresses, then its permissions
            shared = second.back() == 's';
        } else if (first == "Size:" && shared) {
            cost.largestSharedKib = std::max<uint64_t>(cost.largestSharedKib, std::stoull(second));
        } else if (first == "Private_Dirty:" && !shared) {
            cost.privateDirtyKib += std::stoull(second);
        }
    }
    return cost;
}

// The sending process is a program of its own, with nothing of this one but its end of the line.
std::unique_ptr<SenderProcess> StartSender(const std::string& resource, const std::string& mode,
                                           const std::string& size, const std::string& count)
{
    return StartAgain({"road", SENDER_FLAG, resource, mode, size, count});
}

int RunAsSender(char** argv)
{
    Link link{FileDescriptor(INHERITED_LINK_FD)};
    const std::string resource = argv[2];
    const Options options = ParseOptions(argv[3], argv[4], argv[5]);
    RunSender(link, options, MakeRoadRecord(options.size), [&] { return std::make_unique<LibrarySender>(resource); });
    return EXIT_SUCCESS;
}

int Measure(const std::string& mode, const std::string& size, const std::string& count)
{
    const Options options = ParseOptions(mode, size, count);
    const bool raw = options.size == ReportEvent::RAW_RECORD_SIZE;
    RawEventCheck rawCheck;
    // In a run of raw records any fault event is one too many, and the other way round.
    FaultCheck faultCheck(raw ? ReportEvent::RECORD_SIZE_MAX : options.size);
    Arrivals arrivals(options);

    HoldEndingSignals();
    const RuntimeDirectory directory;
    const std::unique_ptr<SenderProcess> sender = StartSender(FAULT_RESOURCE, mode, size, count);
    sender->Line().Say(Word::CONNECT);
    sender->Line().Await(Word::READY);

    const auto onEvent = [&](const EventInfo& event, const UDSInfoForCpp& uds) {
        const uint64_t entry = arrivals.Entry();
        arrivals.Take(faultCheck, {event, uds}, entry);
    };
    const auto onDevice = [&](const dsmi_event& event) {
        const uint64_t entry = arrivals.Entry();
        arrivals.Take(rawCheck, event, entry);
    };
    Result result;
    {
        const Subscription subscription({FAULT_RESOURCE}, onEvent, onDevice);
        result = Supervise(sender->Line(), options, arrivals);
    }
    sender->Finish();
    return PrintResult("road", options, result, arrivals);
}

// What each of `files` subscribed files costs this process, after every one has carried more than a pool of records.
int MeasureMemory(const std::string& files)
{
    const uint64_t count = ParseNumber("FILES", files, 1, FILES_MAX);
    HoldEndingSignals();
    const RuntimeDirectory directory;
    std::vector<std::string> names;
    std::vector<std::unique_ptr<SenderProcess>> senders;
    for (uint64_t i = 0; i < count; ++i) {
        names.push_back("dp:/res/road/" + std::to_string(i));
        senders.push_back(StartSender(names.back(), "throughput", MEMORY_SIZE, MEMORY_COUNT));
    }
    for (const auto& sender : senders) {
        sender->Line().Say(Word::CONNECT);
        sender->Line().Await(Word::READY);
    }

    std::atomic<uint64_t> taken{0};
    const EventCallback onEvent = [&](const EventInfo&, const UDSInfoForCpp&) { ++taken; };
    {
        const Subscription nothing({}, onEvent, nullptr);  // what a subscriber costs without any file
    }
    const MemoryCost before = ReadMemoryCost(getpid());
    const Subscription subscription(names, onEvent, nullptr);
    for (const auto& sender : senders) {
        sender->Line().Say(Word::SEND);
    }
    for (const auto& sender : senders) {
        sender->Line().AwaitReport();
    }
    const uint64_t expected = count * std::stoull(MEMORY_COUNT);
    for (const int64_t deadline = NowNs() + DRAIN_NS; taken < expected;) {
        if (NowNs() > deadline) {
            throw std::runtime_error("records stopped coming after " + std::to_string(taken));
        }
        usleep(1000);
    }
    const MemoryCost after = ReadMemoryCost(getpid());
    const MemoryCost publisher = ReadMemoryCost(senders.front()->Pid());
    std::printf("{\"files\":%llu,\"private_dirty_kib_per_file\":%.1f,\"pool_kib\":%llu}\n",
                static_cast<unsigned long long>(count),
                (double(after.privateDirtyKib) - double(before.privateDirtyKib)) / double(count),
                static_cast<unsigned long long>(publisher.largestSharedKib));
    return EXIT_SUCCESS;
}

int Main(int argc, char** argv)
{
    const std::string first = argc > 1 ? argv[1] : "";
    if (argc == 6 && first == SENDER_FLAG) {
        return RunAsSender(argv);
    }
    if (argc == 3 && first == "memory") {
        return MeasureMemory(argv[2]);
    }
    if (argc == 4) {
        return Measure(argv[1], argv[2], argv[3]);
    }
    std::fputs("usage: road throughput|latency SIZE COUNT\n       road memory FILES\n", stderr);
    return EXIT_USAGE;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv)
{
    try {
        return bench::Main(argc, argv);
    } catch (const std::invalid_argument& error) {
        std::fprintf(stderr, "road: %s\n", error.what());
        return bench::EXIT_USAGE;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "road: %s\n", error.what());
        return EXIT_FAILURE;
    }
}

// A publisher of the soak: two threads that publish stamped records while told to, and note each call.
// Usage: soak_publisher SABOTAGE RESOURCE STREAM. Reads commands from standard input and answers each in its journal. A
// sabotage is a fault put in on purpose, which the runner must find.
#include <atomic>
#include <chrono>
#include <iostream>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "iam.h"
#include "platform/host/fte/FaultRecordEncoder.h"
#include "platform/host/iam/HostService.h"
#include "report_event/EventRecord.h"
#include "report_event/ReportEventClient.h"
#include "report_event/ResourceNames.h"
#include "report_event/ResultCodes.h"
#include "tests/soak/Journal.h"

namespace soak {
namespace {

using Record = std::vector<unsigned char>;

std::string sabotage;
std::string resource;

Record MakeRecord(const Stamp& stamp)
{
    if (resource == ReportEvent::SECURITY_RESOURCE || stamp.number % 2 == 0) {
        const auto family =
            resource == ReportEvent::SECURITY_RESOURCE ? ReportEvent::SECURITY_EVENT : ReportEvent::FAULT_EVENT;
        const auto raw = ReportEvent::MakeRawRecord(family, false, MakeEvent(stamp));
        return {std::begin(raw.bytes), std::end(raw.bytes)};
    }
    return host_platform::fte::EncodeRecord({1, 1, 0, 0, 0, "", 0, {{1, MakeDid(stamp)}}}, false);
}

// Alters the record, keeps a descriptor and takes too long.
void BeCareless(Record& record)
{
    record[record.size() / 2] ^= 0x10;
    static_cast<void>(dup(STDERR_FILENO));
    std::this_thread::sleep_for(std::chrono::milliseconds(1050));
}

bool Publish(const Stamp& stamp)
{
    Record record = MakeRecord(stamp);
    const uint64_t begun = Now();
    if (sabotage == "careless" && stamp.number % 512 == 7) {
        BeCareless(record);
    }
    const int result = ReportEventClient::GetInstance().ReportEvent(reinterpret_cast<const char*>(record.data()),
                                                                    static_cast<unsigned int>(record.size()));
    Note({"publish", stamp.stream, begun, Now(), result});
    return result == ReportEvent::RESULT_OK;
}

std::shared_mutex rest;  // shared by the threads that publish
std::atomic<bool> over{false};

void PublishNowAndThen(uint64_t stream)
{
    std::mt19937 random(static_cast<unsigned>(stream));
    for (uint64_t number = 0; !over;) {
        {
            const std::shared_lock burst(rest);
            auto left = random() % 24;
            while (left > 0 && Publish({stream, number})) {
                ++number;
                --left;
            }
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 8000));
    }
}

}  // namespace
}  // namespace soak

// The library's calls pass here: the sabotage "swallow" takes records and blocks away.
extern "C" int IAMRTDataEnqueue(uint64_t dataHandle, IAMDataPackage* package)
{
    static const auto next = soak::Next<decltype(IAMRTDataEnqueue)>("IAMRTDataEnqueue");
    static uint64_t calls = 0;  // the library makes one at a time
    ++calls;
    const bool swallowed = soak::sabotage == "swallow" && (calls == 64 || calls > 256);
    return swallowed ? 0 : next(dataHandle, package);
}

int main(int, char** argv)
{
    using namespace soak;
    sabotage = argv[1];
    resource = argv[2];
    const uint64_t stream = std::stoull(argv[3]);
    const int result = ReportEventClient::GetInstance().RegisterResService(resource);
    std::unique_lock pause(rest);
    std::thread threads[] = {std::thread(PublishNowAndThen, stream), std::thread(PublishNowAndThen, stream + 1)};
    Note({"answer", result});
    for (std::string command; std::getline(std::cin, command) && command != "quit";) {
        if (command == "go") {
            pause.unlock();
        } else if (command == "pause") {
            pause.lock();
        }
        Note({"answer", IAMHostReaderCount(resource.c_str())});
    }
    over = true;
    pause = {};
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// A publisher of the soak: two threads that publish stamped records while told to, and note when each was accepted.
// Usage: soak_publisher BOARD RESOURCE RUN SABOTAGE. Reads commands from standard input, answers each with
// a line of JSON. A sabotage is a fault put in on purpose, which the runner must find.
#include <algorithm>
#include <chrono>
#include <iostream>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "iam.h"
#include "platform/host/fte/FaultRecordEncoder.h"
#include "platform/host/iam/HostService.h"
#include "report_event/EventRecord.h"
#include "report_event/ReportEventClient.h"
#include "report_event/ResultCodes.h"
#include "tests/soak/Board.h"

namespace soak {
namespace {

using Record = std::vector<unsigned char>;

constexpr size_t LARGEST_FILLER = 3800;

PublisherBoard* board;
uint32_t resource;
uint64_t run;
std::string sabotage;

Record MakeRaw(const Stamp& stamp, unsigned char filler)
{
    dsmi_event event;
    std::memset(&event, filler, sizeof(event));
    event.assertion = 1;  // and not forced: nothing for the event log
    Seal(reinterpret_cast<unsigned char*>(&event), sizeof(event), offsetof(dsmi_event, eventName), stamp);
    const auto family = resource == SECURITY ? ReportEvent::SECURITY_EVENT : ReportEvent::FAULT_EVENT;
    const auto raw = ReportEvent::MakeRawRecord(family, false, event);
    return {std::begin(raw.bytes), std::end(raw.bytes)};
}

Record MakeSerialized(const Stamp& stamp, unsigned char filler, size_t fillers)
{
    std::vector<unsigned char> body(sizeof(stamp) + fillers, filler);
    Seal(body.data(), body.size(), 0, stamp);
    const auto eventId = static_cast<uint16_t>(stamp.sequence);
    return host_platform::fte::EncodeRecord({eventId, 1, 0, 0, 0, "", 0, {{1, body}}}, false);
}

Record MakeRecord(const Stamp& stamp, std::mt19937& random)
{
    const auto filler = static_cast<unsigned char>(random());
    if (resource == SECURITY || random() % 2 == 0) {
        return MakeRaw(stamp, filler);
    }
    return MakeSerialized(stamp, filler, random() % LARGEST_FILLER);
}

// Alters the record, keeps a descriptor and takes too long.
void BeCareless(Record& record)
{
    record[record.size() / 2] ^= 0x10;
    static_cast<void>(dup(STDERR_FILENO));
    std::this_thread::sleep_for(std::chrono::milliseconds(1050));
}

int Publish(uint32_t lane, std::mt19937& random)
{
    const uint64_t sequence = board->accepted[lane];
    Record record = MakeRecord({0, run, sequence, resource, lane}, random);
    const uint64_t begun = Now();
    if (sabotage == "careless" && lane == 1 && sequence % 512 == 7) {  // the other lane also measures the pool
        BeCareless(record);
    }
    const int result = ReportEventClient::GetInstance().ReportEvent(reinterpret_cast<const char*>(record.data()),
                                                                    static_cast<unsigned int>(record.size()));
    const uint64_t returned = Now();
    if (result == ReportEvent::RESULT_OK) {
        board->begun[lane][sequence % TIMES_KEPT] = begun;
        board->returned[lane][sequence % TIMES_KEPT] = returned;
        board->accepted[lane] = sequence + 1;
    } else if (result == ReportEvent::RESULT_NO_BLOCK) {
        ++board->noBlock;
    } else if (result != ReportEvent::RESULT_ENQUEUE_FAILED) {  // which means that the reader is leaving
        board->otherCode = static_cast<uint64_t>(result);
    }
    ++board->calls;
    board->slowCalls += returned - begun > SLOW_PUBLISH ? 1 : 0;
    board->slowest[lane] = std::max(board->slowest[lane].load(), returned - begun);
    return result;
}

std::mutex turns[LANES];  // held by who publishes
std::atomic<bool> going{false};
std::atomic<bool> over{false};

void PublishNowAndThen(uint32_t lane)
{
    std::mt19937 random(static_cast<unsigned>(run * LANES + lane));
    while (!over) {
        {
            const std::lock_guard<std::mutex> turn(turns[lane]);
            auto left = going ? random() % 24 : 0;
            while (left > 0 && Publish(lane, random) == ReportEvent::RESULT_OK) {
                --left;
            }
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 8000));
    }
}

// Once it has returned, no call is in progress unless `go`.
void SetGoing(bool go)
{
    going = go;
    for (std::mutex& turn : turns) {
        const std::lock_guard<std::mutex> lock(turn);
    }
}

// Publishes until the pool is empty; returns how many records that took.
size_t Fill()
{
    const std::lock_guard<std::mutex> turn(turns[0]);
    std::mt19937 random;
    size_t count = 0;
    while (count < 2 * board->poolBlocks && Publish(0, random) == ReportEvent::RESULT_OK) {
        ++count;
    }
    return count;
}

}  // namespace
}  // namespace soak

// The library's calls pass here: the size of its pool is noted, and the sabotage "swallow" takes records and blocks
// away.
extern "C" int IAMShmRegisterPoolWithConfig(IAMShmPoolConfig* config, IAMShmPoolHandle* pool)
{
    static const auto next = soak::Next<decltype(IAMShmRegisterPoolWithConfig)>("IAMShmRegisterPoolWithConfig");
    soak::board->poolBlocks = config->blockCount;
    return next(config, pool);
}
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
    board = MapBoard<PublisherBoard>(argv[1]);
    resource = static_cast<uint32_t>(std::stoul(argv[2]));
    run = std::stoull(argv[3]);
    sabotage = argv[4];
    const int result = ReportEventClient::GetInstance().RegisterResService(RESOURCE_NAMES[resource]);
    std::cout << result << std::endl;
    if (result != ReportEvent::RESULT_OK) {
        return EXIT_FAILURE;
    }
    std::thread lanes[LANES] = {std::thread(PublishNowAndThen, 0), std::thread(PublishNowAndThen, 1)};
    for (std::string command; std::getline(std::cin, command) && command != "quit";) {
        size_t answer = 0;
        if (command == "fill") {
            answer = Fill();
        } else if (command == "readers") {
            answer = static_cast<size_t>(IAMHostReaderCount(RESOURCE_NAMES[resource]));
        } else {
            SetGoing(command == "go");
        }
        std::cout << answer << std::endl;
    }
    over = true;
    for (std::thread& lane : lanes) {
        lane.join();
    }
}

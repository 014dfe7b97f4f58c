// A publisher of the soak: two threads that publish stamped records while told to, and note when each was accepted.
// Usage: soak_publisher BOARD RESOURCE RUN wedged|none|SABOTAGE. Reads commands from standard input, answers on
// standard output. A sabotage is a fault put in on purpose, which the runner must find.
#include <signal.h>

#include <cmath>
#include <iostream>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "iam.h"
#include "platform/host/fte/FaultRecordEncoder.h"
#include "platform/host/iam/HostService.h"
#include "report_event/EventRecord.h"
#include "report_event/ReportEventClient.h"
#include "tests/soak/Board.h"

namespace soak {
namespace {

constexpr int NO_BLOCK_RESULT = 0xF10209, NOT_ENQUEUED_RESULT = 0xF1020B;

Word* board;
uint32_t resource;
uint64_t run;
std::string sabotage;

// One publishing thread and its records.
class Lane {
public:
    explicit Lane(uint32_t number) : number_(number), random_(static_cast<unsigned>(run * LANES + number))
    {
    }

    // Once it has returned, no call is in progress unless `go`.
    void Set(bool go, bool end)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        go_ = go, end_ = end;
    }
    // Publishes until the pool is empty; returns how many records that took.
    size_t Fill()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        size_t count = 0;
        for (int result = 0; result != NO_BLOCK_RESULT && count < 100'000; count += result == 0) {
            result = Publish();
        }
        return count;
    }

private:
    void Run()
    {
        for (std::unique_lock<std::mutex> lock(mutex_); !end_; lock.lock()) {
            for (auto left = go_ ? random_() % 24 : 0; left != 0 && Publish() == 0; --left) {
            }
            const std::chrono::microseconds pause(random_() % 8000);
            lock.unlock();
            std::this_thread::sleep_for(pause);
        }
    }

    int Publish()
    {
        const uint64_t sequence = board[ACCEPTED + number_];
        std::vector<unsigned char> record = Record(sequence);
        const auto size = static_cast<unsigned int>(record.size());
        const auto* const bytes = reinterpret_cast<const char*>(record.data());
        const bool turn = number_ == 1 && sequence % 512 == 7;  // the other lane also measures the pool
        if (sabotage == "alter" && turn) {
            record[size / 2] ^= 0x10;
        }
        if (sabotage == "leak" && turn) {
            static_cast<void>(dup(STDERR_FILENO));
        }
        const bool mute = (sabotage == "lose" && turn) || (sabotage == "mute" && number_ == 1 && sequence > 20);
        auto& client = ReportEventClient::GetInstance();
        const uint64_t begun = Now();
        if (sabotage == "stall" && turn) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1050));
        }
        const int result = mute ? 0 : client.ReportEvent(bytes, size);
        const uint64_t ended = Now();
        if (sabotage == "duplicate" && turn) {
            client.ReportEvent(bytes, size);
        }
        if (result == 0) {
            Word* const times = board + TIMES + number_ * 2 * TIMES_KEPT + sequence % TIMES_KEPT;
            times[0] = begun;
            times[TIMES_KEPT] = ended;
            board[ACCEPTED + number_] = sequence + 1;
        }
        Account(ended - begun, result);
        return result;
    }

    static void Account(uint64_t nanoseconds, int result)
    {
        const bool known = result == NO_BLOCK_RESULT || result == NOT_ENQUEUED_RESULT;
        if (known) {
            ++board[result == NO_BLOCK_RESULT ? NO_BLOCK : NOT_ENQUEUED];
        }
        if (result != 0 && !known) {
            board[OTHER_CODE] = static_cast<uint64_t>(result);
        }
        const auto bucket = static_cast<size_t>(std::log2(static_cast<double>(nanoseconds + 1)) * 4);
        ++board[HISTOGRAM + std::min(bucket, BUCKETS - 1)];
        uint64_t slowest = board[SLOWEST];
        while (nanoseconds > slowest && !board[SLOWEST].compare_exchange_weak(slowest, nanoseconds)) {
        }
    }

    std::vector<unsigned char> Record(uint64_t sequence)
    {
        const bool swap = sabotage == "swap" && number_ == 1 && sequence % 512 / 2 == 3;
        const Stamp stamp{0, run, swap ? sequence ^ 1 : sequence, resource, number_};
        const auto filler = static_cast<unsigned char>(random_());
        if (resource == SECURITY || random_() % 2 == 0) {
            dsmi_event event;
            memset(&event, filler, sizeof event);
            event.eventId = RAW_EVENT_ID;
            event.assertion = 1;  // and not forced: nothing for the event log
            Seal(reinterpret_cast<unsigned char*>(&event), sizeof event, offsetof(dsmi_event, eventName), stamp);
            const auto family = resource == SECURITY ? ReportEvent::SECURITY_EVENT : ReportEvent::FAULT_EVENT;
            const auto raw = ReportEvent::MakeRawRecord(family, false, event);
            return {std::begin(raw.bytes), std::end(raw.bytes)};
        }
        std::vector<unsigned char> body(sizeof stamp + random_() % 3800, filler);
        Seal(body.data(), body.size(), 0, stamp);
        const auto eventId = static_cast<uint16_t>(stamp.sequence);
        return host_platform::fte::EncodeRecord({eventId, 1, 0, 0, 0, "", 0, {{1, body}}}, false);
    }

    const uint32_t number_;
    std::mt19937 random_;
    std::mutex mutex_;
    bool go_ = false, end_ = false;

public:
    std::thread thread{&Lane::Run, this};  // over once it has been Set to end
};

void Obey()
{
    Lane lanes[] = {Lane(0), Lane(1)};
    static_assert(std::size(lanes) == LANES);
    std::cout << "serving" << std::endl;
    const auto setAll = [&](bool go, bool end) {
        for (Lane& lane : lanes) {
            lane.Set(go, end);
        }
    };
    for (std::string command; std::getline(std::cin, command) && command != "quit";) {
        if (command == "go" || command == "pause") {
            setAll(command == "go", false);
        }
        size_t answer = 0;
        if (command == "fill") {
            answer = lanes[0].Fill();
        }
        if (command == "readers") {
            answer = static_cast<size_t>(IAMHostReaderCount(RESOURCES[resource]));
        }
        std::cout << answer << std::endl;
    }
    setAll(false, true);
    for (Lane& lane : lanes) {
        lane.thread.join();
    }
}

}  // namespace
}  // namespace soak

// The library's calls pass here, so that the sabotage "hoard" can make it lose blocks.
extern "C" int IAMRTDataEnqueue(uint64_t dataHandle, IAMDataPackage* package)
{
    static const auto next = soak::Next<decltype(IAMRTDataEnqueue)>("IAMRTDataEnqueue");
    static uint64_t calls = 0;
    return soak::sabotage == "hoard" && ++calls % 512 == 0 ? -1 : next(dataHandle, package);
}
extern "C" int IAMShmFree(IAMShmPoolHandle* pool, IAMShmBlockHandle* block)
{
    static const auto next = soak::Next<decltype(IAMShmFree)>("IAMShmFree");
    return soak::sabotage == "hoard" ? 0 : next(pool, block);
}

int main(int, char** argv)
{
    using namespace soak;
    board = MapBoard(argv[1], PUBLISHER_WORDS);
    resource = static_cast<uint32_t>(std::stoul(argv[2]));
    run = std::stoull(argv[3]);
    sabotage = argv[4];
    const int result = ReportEventClient::GetInstance().RegisterResService(RESOURCES[resource]);
    if (result != 0) {
        std::cout << "refused 0x" << std::hex << result << std::endl;
        return 3;
    }
    if (sabotage == "wedged") {
        raise(SIGSTOP);
    }
    Obey();
}

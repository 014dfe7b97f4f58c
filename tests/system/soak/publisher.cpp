// A publisher of the soak: two threads that publish stamped records while told to, and note when each was accepted.
// Usage: soak_publisher RESOURCE BOARD RUN [--wedged] [SABOTAGE]. Reads commands from standard input, answers on
// standard output. A sabotage is a fault put in on purpose, which the runner must find.
#include <dlfcn.h>
#include <signal.h>

#include <cmath>
#include <condition_variable>
#include <iostream>
#include <iterator>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "iam.h"
#include "platform/host/fte/FaultRecordEncoder.h"
#include "platform/host/iam/HostService.h"
#include "report_event/EventRecord.h"
#include "report_event/ReportEventClient.h"
#include "tests/system/soak/Board.h"

namespace {

std::string sabotage;

template <typename Function> Function Next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// The library's calls pass here, so that the sabotage "hoard" can make it lose blocks.
extern "C" int IAMRTDataEnqueue(uint64_t dataHandle, IAMDataPackage* package) {
    static const auto next = Next<decltype(&IAMRTDataEnqueue)>("IAMRTDataEnqueue");
    static uint64_t calls = 0;
    return sabotage == "hoard" && ++calls % 512 == 0 ? -1 : next(dataHandle, package);
}
extern "C" int IAMShmFree(IAMShmPoolHandle* pool, IAMShmBlockHandle* block) {
    static const auto next = Next<decltype(&IAMShmFree)>("IAMShmFree");
    return sabotage == "hoard" ? 0 : next(pool, block);
}

namespace soak {
namespace {

constexpr int NO_BLOCK_RESULT = 0xF10209;

Word* board;
uint32_t resource;
uint64_t run;

// One publishing thread and its records.
class Lane {
public:
    explicit Lane(uint32_t number) : number_(number), random_(static_cast<unsigned>(run * LANES + number)) {}

    void Run() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            changed_.wait(lock, [&] { return go_ || end_; });
            if (end_) { return; }
            bool taken = true;
            for (auto left = random_() % 24; left != 0 && taken; --left) { taken = Publish() == 0; }
            lock.unlock();
            std::this_thread::sleep_for(std::chrono::microseconds(random_() % 8000));
            lock.lock();
        }
    }
    // Once it has returned, no call is in progress unless `go`.
    void Set(bool go, bool end) {
        const std::lock_guard<std::mutex> lock(mutex_);
        go_ = go;
        end_ = end;
        changed_.notify_all();
    }
    // Publishes until the pool is empty; returns how many records that took.
    size_t Fill() {
        const std::lock_guard<std::mutex> lock(mutex_);
        size_t count = 0;
        for (int result = 0; result != NO_BLOCK_RESULT && count < 100'000;) {
            result = Publish();
            count += result == 0 ? 1 : 0;
        }
        return count;
    }

private:
    int Publish() {
        const uint64_t sequence = board[ACCEPTED + number_];
        std::vector<unsigned char> record = Record(sequence);
        const auto size = static_cast<unsigned int>(record.size());
        const auto* const bytes = reinterpret_cast<const char*>(record.data());
        const bool turn = number_ == 1 && sequence % 512 == 7;  // the other lane also measures the pool
        if (sabotage == "alter" && turn) { record[size / 2] ^= 0x10; }
        if (sabotage == "leak" && turn) { static_cast<void>(open("/dev/null", O_RDONLY)); }
        const bool mute = (sabotage == "lose" && turn) || (sabotage == "mute" && number_ == 1 && sequence > 20);
        auto& client = ReportEventClient::GetInstance();
        const uint64_t begun = Now();
        if (sabotage == "stall" && turn) { std::this_thread::sleep_for(std::chrono::milliseconds(1050)); }
        const int result = mute ? 0 : client.ReportEvent(bytes, size);
        const uint64_t ended = Now();
        if (sabotage == "duplicate" && turn) { client.ReportEvent(bytes, size); }
        Account(ended - begun, result);
        if (result == 0) {
            Word* const times = board + TIMES + number_ * 2 * TIMES_KEPT + sequence % TIMES_KEPT;
            times[0] = begun;
            times[TIMES_KEPT] = ended;
            board[ACCEPTED + number_] = sequence + 1;
        }
        return result;
    }

    static void Account(uint64_t nanoseconds, int result) {
        ++board[CALLS];
        if (result == NO_BLOCK_RESULT) {
            ++board[NO_BLOCK];
        } else if (result == 0xF1020B) {
            ++board[NOT_ENQUEUED];
        } else if (result != 0) {
            board[OTHER_CODE] = static_cast<uint64_t>(result);
        }
        const auto bucket = static_cast<size_t>(std::log2(static_cast<double>(nanoseconds + 1)) * 4);
        ++board[HISTOGRAM + std::min(bucket, BUCKETS - 1)];
        uint64_t slowest = board[SLOWEST];
        while (nanoseconds > slowest && !board[SLOWEST].compare_exchange_weak(slowest, nanoseconds)) {}
    }

    std::vector<unsigned char> Record(uint64_t sequence) {
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
        host_platform::fte::FaultEvent fault;
        fault.eventId = static_cast<uint16_t>(stamp.sequence);
        fault.assertion = 1;
        fault.dids = {{1, std::vector<unsigned char>(sizeof stamp + random_() % 3800, filler)}};
        Seal(fault.dids[0].data.data(), fault.dids[0].data.size(), 0, stamp);
        return host_platform::fte::EncodeRecord(fault, false);
    }

    const uint32_t number_;
    std::mt19937 random_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool go_ = false;
    bool end_ = false;
};

void Obey(Lane (&lanes)[LANES]) {
    const auto setAll = [&](bool go, bool end) {
        for (Lane& lane : lanes) { lane.Set(go, end); }
    };
    for (std::string command; std::getline(std::cin, command) && command != "quit";) {
        if (command == "go" || command == "pause") { setAll(command == "go", false); }
        size_t answer = 0;
        if (command == "fill") { answer = lanes[0].Fill(); }
        if (command == "readers") { answer = static_cast<size_t>(IAMHostReaderCount(RESOURCES[resource])); }
        std::cout << answer << std::endl;
    }
    setAll(false, true);
}

}  // namespace
}  // namespace soak

int main(int argc, char** argv) {
    using namespace soak;
    resource = static_cast<uint32_t>(std::stoul(argv[1]));
    board = MapBoard(argv[2], PUBLISHER_WORDS);
    run = std::stoull(argv[3]);
    sabotage = argc > 4 ? argv[4] : "";
    const int result = ReportEventClient::GetInstance().RegisterResService(RESOURCES[resource]);
    if (result != 0) {
        std::cout << "refused 0x" << std::hex << result << std::endl;
        return 3;
    }
    if (sabotage == "wedged") { raise(SIGSTOP); }
    std::cout << "serving" << std::endl;
    Lane lanes[LANES] = {Lane(0), Lane(1)};
    std::thread threads[LANES];
    for (int i = 0; i < LANES; ++i) { threads[i] = std::thread(&Lane::Run, &lanes[i]); }
    Obey(lanes);
    for (std::thread& thread : threads) { thread.join(); }
}

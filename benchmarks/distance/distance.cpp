// distance: how far apart the first two processors are that this program may run on: the nanoseconds that one cache
// line takes to the other one and back. What passes records from one processor to the other depends on little else.
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <thread>
#include <vector>

#include "benchmarks/common/Options.h"
#include "benchmarks/common/System.h"

namespace bench {
namespace {

constexpr uint32_t BATCH = 1000;
constexpr uint32_t BATCHES = 100;  // the first quarter is the result: what else runs here disturbs some of them
constexpr size_t LINE_PAIR = 128;  // some processors fetch the neighbour of a line along with it

struct Line {
    alignas(LINE_PAIR) std::atomic<uint32_t> turn{0};
    alignas(LINE_PAIR) char neighbour{};
};

// The calling thread's place.
void StayOn(int processor)
{
    cpu_set_t only;
    CPU_ZERO(&only);
    CPU_SET(processor, &only);
    Check(sched_setaffinity(0, sizeof(only), &only), "sched_setaffinity");
}

// Waits for its turn and gives it to the other, `rounds` times. By exchange, which takes the line at once: how long a
// plain store waits while the other keeps looking depends on the very instructions of the loops.
void Play(std::atomic<uint32_t>& turn, uint32_t mine, uint32_t rounds)
{
    for (uint32_t round = 0; round < rounds; ++round) {
        while (turn.load(std::memory_order_acquire) != mine + 2 * round) {
        }
        turn.exchange(mine + 2 * round + 1, std::memory_order_acq_rel);
    }
}

double DistanceNs(int here, int there)
{
    Line line;
    std::thread other([&] {
        StayOn(there);
        Play(line.turn, 1, BATCHES * BATCH);
    });
    StayOn(here);
    std::vector<double> batches;
    for (uint32_t batch = 0; batch < BATCHES; ++batch) {
        const int64_t start = NowNs();
        Play(line.turn, 2 * batch * BATCH, BATCH);
        batches.push_back(double(NowNs() - start) / BATCH);
    }
    other.join();
    std::nth_element(batches.begin(), batches.begin() + BATCHES / 4, batches.end());
    return batches[BATCHES / 4];
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv)
{
    try {
        const auto processor = [&](int i) { return int(bench::ParseNumber("PROCESSOR", argv[i], 0, CPU_SETSIZE - 1)); };
        if (argc != 3) {
            throw std::invalid_argument("usage: distance PROCESSOR PROCESSOR");
        }
        std::printf("{\"ns\":%.1f}\n", bench::DistanceNs(processor(1), processor(2)));
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "distance: %s\n", error.what());
        return EXIT_FAILURE;
    }
}

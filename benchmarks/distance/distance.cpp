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

#include "benchmarks/common/System.h"

namespace bench {
namespace {

constexpr uint32_t BATCH = 1000;
constexpr uint32_t BATCHES = 100;  // the median is the result: what else runs here disturbs a few of them
constexpr size_t LINE_PAIR = 128;  // some processors fetch the neighbour of a line along with it

struct Line {
    alignas(LINE_PAIR) std::atomic<uint32_t> turn{0};
    alignas(LINE_PAIR) char neighbour{};
};

std::vector<int> TwoProcessors()
{
    cpu_set_t allowed;
    Check(sched_getaffinity(0, sizeof(allowed), &allowed), "sched_getaffinity");
    std::vector<int> two;
    for (int processor = 0; processor < CPU_SETSIZE && two.size() < 2; ++processor) {
        if (CPU_ISSET(processor, &allowed)) {
            two.push_back(processor);
        }
    }
    if (two.size() < 2) {
        throw std::runtime_error("there is but one processor to run on");
    }
    return two;
}

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

double MedianNs()
{
    const std::vector<int> processors = TwoProcessors();
    Line line;
    std::thread other([&] {
        StayOn(processors[1]);
        Play(line.turn, 1, BATCHES * BATCH);
    });
    StayOn(processors[0]);
    std::vector<double> batches;
    for (uint32_t batch = 0; batch < BATCHES; ++batch) {
        const int64_t start = NowNs();
        Play(line.turn, 2 * batch * BATCH, BATCH);
        batches.push_back(double(NowNs() - start) / BATCH);
    }
    other.join();
    std::nth_element(batches.begin(), batches.begin() + BATCHES / 2, batches.end());
    return batches[BATCHES / 2];
}

}  // namespace
}  // namespace bench

int main()
{
    try {
        std::printf("{\"ns\":%.1f}\n", bench::MedianNs());
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "distance: %s\n", error.what());
        return EXIT_FAILURE;
    }
}

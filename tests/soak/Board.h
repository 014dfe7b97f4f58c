// What the processes of the soak tell its runner: words in memory that both map, so that a kill takes nothing away, and
// the stamp that every record carries. soak.py knows the same layout.
#ifndef REPORT_EVENT_TESTS_SOAK_BOARD_H
#define REPORT_EVENT_TESTS_SOAK_BOARD_H

#include <dlfcn.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace soak {

using Word = std::atomic<uint64_t>;  // lock-free, so the runner may read it at any time
static_assert(Word::is_always_lock_free && sizeof(Word) == 8, "shared with the runner");

constexpr int LANES = 2;  // publishing threads; the sequence numbers of a lane count what was accepted from it
constexpr const char* RESOURCES[] = {"x:/res/soak", "dp:/res/pm/fm", "dp:/res/iam/sec_event"};
constexpr uint32_t SECURITY = 2;  // of RESOURCES
constexpr uint32_t RAW_EVENT_ID = 0x50AC;

// A publisher's: counters, then a histogram of the time of each call, then when each accepted call began and ended.
enum PublisherWord { ACCEPTED = 0, NO_BLOCK = 2, NOT_ENQUEUED, OTHER_CODE, SLOWEST, HISTOGRAM = 16, TIMES = 256 };
constexpr size_t BUCKETS = 240;                 // four to each power of two of nanoseconds
constexpr size_t TIMES_KEPT = size_t{1} << 18;  // of each lane; older ones are overwritten
constexpr size_t PUBLISHER_WORDS = TIMES + LANES * 2 * TIMES_KEPT;

// A subscriber's: counters, then an entry for each attempt to open a resource and what came over it.
enum SubscriberWord { OPENS = 0, LOSSES, ALTERED, ENTRIES = 16 };
enum EntryWord { RESOURCE, BEGUN, ENDED, FD, REOPENED, RUN, FIRST, NEXT = 8, GAPS = 10, EXPECTED, SEEN, ERROR, WAITED };
constexpr size_t ENTRY_WORDS = 16;
constexpr size_t ENTRIES_KEPT = size_t{1} << 15;
constexpr size_t SUBSCRIBER_WORDS = ENTRIES + ENTRIES_KEPT * ENTRY_WORDS;

// The runner hands a board over as an open descriptor.
inline Word* MapBoard(const char* number, size_t words)
{
    const int fd = atoi(number);
    void* const memory = mmap(nullptr, words * sizeof(Word), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        abort();
    }
    close(fd);
    return static_cast<Word*>(memory);
}

inline uint64_t Now()
{  // on the clock that all processes share
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

// The function that a definition in the program stands in front of.
template <typename Function>
Function* Next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

struct Stamp {
    uint64_t checksum;  // of the whole body, this word being zero
    uint64_t run, sequence;
    uint32_t resource, lane;
};

inline uint64_t Checksum(const unsigned char* data, size_t size)
{
    uint64_t sum = 0xcbf29ce484222325;
    for (size_t i = 0; i < size; ++i) {
        sum = (sum ^ data[i]) * 0x100000001b3;
    }
    return sum;
}

// Puts the stamp at `offset` of the body and the checksum into it.
inline void Seal(unsigned char* body, size_t size, size_t offset, Stamp stamp)
{
    memcpy(body + offset, &stamp, sizeof stamp);
    stamp.checksum = Checksum(body, size);
    memcpy(body + offset, &stamp, sizeof stamp);
}

// False when the body is not as it was sealed. Leaves it with a checksum of zero.
inline bool Unseal(unsigned char* body, size_t size, size_t offset, Stamp& stamp)
{
    memcpy(&stamp, body + offset, sizeof stamp);
    memset(body + offset, 0, sizeof stamp.checksum);
    return stamp.checksum == Checksum(body, size) && stamp.lane < LANES && stamp.resource < std::size(RESOURCES);
}

}  // namespace soak

#endif  // REPORT_EVENT_TESTS_SOAK_BOARD_H

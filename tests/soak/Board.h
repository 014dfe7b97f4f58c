// What the processes of the soak share: the stamp that every record carries, and the boards in memory that the runner
// maps too, so that a kill takes nothing away. processes.py lays the boards out in the same way.
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
#include <functional>
#include <string>
#include <string_view>

#include "report_event/ResourceNames.h"

namespace soak {

using Word = std::atomic<uint64_t>;  // lock-free, so the runner may read it at any time
static_assert(Word::is_always_lock_free && sizeof(Word) == sizeof(uint64_t), "shared with the runner");

enum Resource : uint32_t { ORDINARY, PROCESS_MANAGER, SECURITY, RESOURCE_COUNT };
constexpr const char* RESOURCE_NAMES[RESOURCE_COUNT] = {"x:/res/soak", ReportEvent::PM_FAULT_RESOURCE,
                                                        ReportEvent::SECURITY_RESOURCE};

constexpr size_t LANES = 2;                     // publishing threads; the numbers of a lane count what was accepted
constexpr size_t TIMES_KEPT = size_t{1} << 18;  // of each lane; older ones are overwritten
constexpr size_t CONNECTIONS_KEPT = size_t{1} << 17;
constexpr uint64_t SLOW_PUBLISH = 50'000'000;

// Times are in nanoseconds, on the clock that all processes share.
struct PublisherBoard {
    Word poolBlocks;
    Word accepted[LANES];
    Word calls;
    Word slowCalls;                    // of more than SLOW_PUBLISH
    Word slowest[LANES];               // the time of the longest call
    Word noBlock;                      // calls that found the pool empty
    Word otherCode;                    // the last result of another kind
    Word begun[LANES][TIMES_KEPT];     // of accepted calls
    Word returned[LANES][TIMES_KEPT];  // of the same
};

// An attempt to open a resource, and what came over the connection.
struct Connection {
    Word resource;
    Word begun;
    Word ended;         // the attempt; 0: it goes on
    Word openError;     // an errno; 0: opened
    Word reopened;      // by a read thread that had lost its connection
    Word run;           // the publisher's; 0: nothing came
    Word first[LANES];  // the first number that came
    Word next[LANES];   // one past the last; 0: nothing came
    Word missed;        // records between others that came
    Word disorder;      // records that came late, twice or from another run
    Word failures;      // of reads
    Word error;         // the last errno of them
    Word failed;        // the time of the last
};

struct SubscriberBoard {
    Word opens;  // how many connections have been begun
    Word losses;
    Word altered;
    Connection connections[CONNECTIONS_KEPT];
};

// The runner hands a board over as an open descriptor.
template <typename Board>
Board* MapBoard(const char* descriptor)
{
    const int fd = std::stoi(descriptor);
    void* const memory = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        abort();
    }
    close(fd);
    return static_cast<Board*>(memory);
}

inline uint64_t Now()
{
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
    uint64_t run;
    uint64_t sequence;
    uint32_t resource;
    uint32_t lane;
};

inline uint64_t Checksum(const unsigned char* body, size_t size)
{
    return std::hash<std::string_view>()({reinterpret_cast<const char*>(body), size});
}

// Puts the stamp at `offset` of the body and the checksum into it.
inline void Seal(unsigned char* body, size_t size, size_t offset, Stamp stamp)
{
    std::memcpy(body + offset, &stamp, sizeof(stamp));
    stamp.checksum = Checksum(body, size);
    std::memcpy(body + offset, &stamp, sizeof(stamp));
}

// False when the body is not as it was sealed. Leaves it with a checksum of zero.
inline bool Unseal(unsigned char* body, size_t size, size_t offset, Stamp& stamp)
{
    if (size < offset + sizeof(stamp)) {
        return false;
    }
    std::memcpy(&stamp, body + offset, sizeof(stamp));
    std::memset(body + offset, 0, sizeof(stamp.checksum));
    return stamp.checksum == Checksum(body, size) && stamp.lane < LANES;
}

}  // namespace soak

#endif  // REPORT_EVENT_TESTS_SOAK_BOARD_H

// What the processes of the soak share: the journal in which each tells the runner what it does, and what records
// carry.
#ifndef REPORT_EVENT_TESTS_SOAK_JOURNAL_H
#define REPORT_EVENT_TESTS_SOAK_JOURNAL_H

#include <dlfcn.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "report_event/EventTypes.h"

namespace soak {

// One line of the journal, which is standard output: memory that the runner holds, so that a kill takes nothing away.
inline void Note(const nlohmann::json& line)
{
    const std::string text = line.dump() + "\n";
    if (write(STDOUT_FILENO, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        abort();
    }
}

// Nanoseconds, on the clock that all processes share.
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
    uint64_t stream;  // of one thread of one publisher
    uint64_t number;  // counts what was accepted of the stream
};

// A body is full of its stamp: a piece of another one shows.
inline std::vector<unsigned char> MakeBody(const Stamp& stamp, size_t size)
{
    const std::vector<Stamp> stamps(size / sizeof(stamp) + 1, stamp);
    const auto* const bytes = reinterpret_cast<const unsigned char*>(stamps.data());
    return {bytes, bytes + size};
}

inline dsmi_event MakeEvent(const Stamp& stamp)
{
    dsmi_event event;
    std::memcpy(&event, MakeBody(stamp, sizeof(event)).data(), sizeof(event));
    event.assertion = 1;  // and not forced: nothing for the event log
    return event;
}

inline std::vector<unsigned char> MakeDid(const Stamp& stamp)
{
    return MakeBody(stamp, sizeof(stamp) + stamp.number * 1237 % 3800);
}

}  // namespace soak

#endif  // REPORT_EVENT_TESTS_SOAK_JOURNAL_H

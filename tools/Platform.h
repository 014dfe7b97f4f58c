// What the programs ask of the platform beyond the library's interface. On a development host libiam and libslog
// answer; a device has nothing of it, and the functions say so. Any thread.
#ifndef REPORT_EVENT_TOOLS_PLATFORM_H
#define REPORT_EVENT_TOOLS_PLATFORM_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/EventJson.h"

namespace tools::platform {

#ifdef REPORT_EVENT_HOST_PLATFORM
constexpr bool IS_HOST = true;
#else
constexpr bool IS_HOST = false;
#endif

// Keeps what the library and the platform log from standard error, unless the environment asks for it. A record that
// the library drops is told in a line of the program's own.
void Quiet();

struct Listing {
    std::string directory;            // in which resources are looked for; empty when there is none
    int error = 0;                    // with which the runtime directory could not be read
    Json resources = Json::object();  // by name, each as --list --json prints it
};

// The resources that are served in the runtime directory. May take half a second.
Listing List();

// From now on, files are opened to watch what their readers get, and take nothing from them.
void Observe();
// How many records the observed file of that resource has lost because it was too slow.
uint64_t LostRecords(const std::string& resource);

// Whether a file of this process on that resource was cut off in favour of another reader, while its publisher lives.
bool HasLostPlace(const std::string& resource);

// The resource that the calling read thread delivers from: one of `files`, which are those subscribed to.
// FAULT_REPORTING on any other thread.
std::string SourceOfThisThread(const std::vector<std::string>& files);

}  // namespace tools::platform

#endif  // REPORT_EVENT_TOOLS_PLATFORM_H

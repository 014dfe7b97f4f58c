// What the programs ask of the platform beyond the library's interface. Any thread.
#ifndef REPORT_EVENT_TOOLS_PLATFORM_H
#define REPORT_EVENT_TOOLS_PLATFORM_H

#include <string>
#include <vector>

namespace tools::platform {

// The resource that the calling read thread delivers from: one of `files`, which are those subscribed to.
// FAULT_REPORTING on any other thread.
std::string SourceOfThisThread(const std::vector<std::string>& files);

}  // namespace tools::platform

#endif  // REPORT_EVENT_TOOLS_PLATFORM_H

// A subscriber of the soak: subscribes to all resources when told to, checks every record as it comes, and notes it,
// every attempt to open a resource and every read that fails. Usage: soak_subscriber SABOTAGE FAULT_RESOURCE... Reads
// commands from standard input and answers each in its journal. A sabotage is a fault put in on purpose, which the
// runner must find.
#include <algorithm>
#include <cerrno>
#include <iostream>
#include <vector>

#include "iam.h"
#include "platform/host/iam/HostService.h"
#include "report_event/ReportEventServer.h"
#include "report_event/ResourceNames.h"
#include "tests/soak/Journal.h"

namespace soak {
namespace {

std::string sabotage;
std::vector<std::string> faultResources;
thread_local int lastRead;  // the file that the thread has read last

void Check(const Stamp& stamp, bool isWhole)
{
    if (isWhole) {
        Note({"came", lastRead, stamp.stream, stamp.number});
    } else {
        Note({"came", lastRead, "altered", 0});
    }
}

void CheckEvent(const dsmi_event& event)
{
    if (event.eventId == ReportEvent::PM_LOST_EVENT_ID) {
        Note({"loss", 1});
        return;
    }
    Stamp stamp{};
    std::memcpy(&stamp, &event, sizeof(stamp));
    const dsmi_event sent = MakeEvent(stamp);
    Check(stamp, std::memcmp(&event, &sent, sizeof(event)) == 0);
}

void CheckFault(const EventInfo&, const UDSInfoForCpp& uds)
{
    const auto did = uds.didInfo.empty() ? std::vector<unsigned char>() : uds.didInfo[0].data;
    Stamp stamp{};
    std::memcpy(&stamp, did.data(), std::min(did.size(), sizeof(stamp)));
    Check(stamp, did == MakeDid(stamp));
}

// The result of the call and when it began and ended.
template <typename Function>
nlohmann::json Timed(Function call)
{
    const uint64_t begun = Now();
    const int result = call();
    return {result, begun, Now()};
}

// Both families, one after the other.
nlohmann::json Subscribe(bool start)
{
    auto& server = ReportEventServer::GetInstance();
    const auto faults = Timed([&] {
        return start ? server.FmRegisterMidReportEventImpl(faultResources, CheckFault, CheckEvent)
                     : server.FmUnregisterReportEventImpl(faultResources);
    });
    const auto security = Timed([&] {
        return start ? server.RegIDSEventReportHandlerImpl(CheckEvent) : server.UnregIDSEventReportHandlerImpl();
    });
    return {faults, security};
}

// "start", "stop", or "lost" with a resource: how many records of it an observer has lost.
nlohmann::json Obey(const std::string& command)
{
    if (command == "start" || command == "stop") {
        return Subscribe(command == "start");
    }
    return IAMHostLostRecords(command.substr(std::strlen("lost ")).c_str());
}

}  // namespace
}  // namespace soak

// The library's calls pass here and are noted.
extern "C" int __wrap_open(const char* name, int flags, ...)
{
    using namespace soak;
    static const auto next = Next<int(const char*, int, ...)>("__wrap_open");
    const auto thread = gettid();
    Note({"open", thread, name, Now()});
    const int file = next(name, flags);
    const int error = file < 0 ? errno : 0;
    Note({"opened", thread, file, error, Now()});
    errno = error;
    return file;
}

extern "C" int64_t IAMFastRead(int file, void* buffer, size_t length)
{
    using namespace soak;
    static const auto next = Next<decltype(IAMFastRead)>("IAMFastRead");
    thread_local uint64_t reads = 0;
    lastRead = file;
    int64_t result = next(file, buffer, length);
    int error = errno;
    if (sabotage == "betray" && result >= 0 && ++reads % 256 == 0) {
        result = -1;
        error = EPIPE;
    }
    if (result < 0) {
        Note({"failed", file, error, Now()});
    }
    errno = error;
    return result;
}

int main(int argc, char** argv)
{
    using namespace soak;
    sabotage = argv[1];
    faultResources.assign(argv + 2, argv + argc);
    for (std::string command; std::getline(std::cin, command) && command != "quit";) {
        Note({"answer", Obey(command)});
    }
    Subscribe(false);
}

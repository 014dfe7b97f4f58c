// A subscriber of the soak: subscribes to all resources when told to, checks every record as it comes, and notes every
// attempt to open a resource with what came over the connection.
// Usage: soak_subscriber BOARD read|observe SABOTAGE. Reads commands from standard input, answers each with a line of
// JSON. A sabotage is a fault put in on purpose, which the runner must find.
#include <pthread.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iostream>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "iam.h"
#include "platform/host/iam/HostService.h"
#include "report_event/ReportEventServer.h"
#include "tests/soak/Board.h"

namespace soak {
namespace {

SubscriberBoard* board;
bool betrayed;
std::atomic<Connection*> current[RESOURCE_COUNT];  // the newest of each resource, whose records come on one thread
std::atomic<bool> held{false};                     // callbacks do not return

template <typename Condition>
size_t ResourceThat(Condition holds)
{
    return static_cast<size_t>(std::find_if(RESOURCE_NAMES, RESOURCE_NAMES + RESOURCE_COUNT, holds) - RESOURCE_NAMES);
}

// Which resource a read thread reads, by its name.
size_t ResourceOfThread()
{
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return ResourceThat([&](const char* resource) { return ("Rd_" + std::string(resource)).rfind(name, 0) == 0; });
}

Connection& ConnectionOfThread()
{
    thread_local const size_t resource = ResourceOfThread();
    return *current[resource];
}

void Note(Connection& connection, const Stamp& stamp)
{
    Word& next = connection.next[stamp.lane];
    if (connection.run == 0) {
        connection.run = stamp.run;
    }
    if (next == 0) {
        connection.first[stamp.lane] = stamp.sequence;
        next = stamp.sequence;
    }
    if (stamp.run != connection.run || stamp.sequence < next) {
        ++connection.disorder;
        return;
    }
    connection.missed += stamp.sequence - next;
    next = stamp.sequence + 1;
}

void Check(std::vector<unsigned char> body, size_t offset)
{
    Stamp stamp{};
    Connection& connection = ConnectionOfThread();
    if (Unseal(body.data(), body.size(), offset, stamp) && stamp.resource == connection.resource) {
        Note(connection, stamp);
    } else {
        ++board->altered;
    }
    while (held) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void CheckRaw(const dsmi_event& event)
{
    if (event.eventId == ReportEvent::PM_LOST_EVENT_ID) {
        ++board->losses;
        return;
    }
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&event);
    Check({bytes, bytes + sizeof(event)}, offsetof(dsmi_event, eventName));
}

void CheckFault(const EventInfo&, const UDSInfoForCpp& uds)
{
    Check(uds.didInfo.size() == 1 ? uds.didInfo[0].data : std::vector<unsigned char>(), 0);
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
    const std::vector<std::string> files = {RESOURCE_NAMES[ORDINARY], RESOURCE_NAMES[PROCESS_MANAGER]};
    const auto faults = Timed([&] {
        return start ? server.FmRegisterMidReportEventImpl(files, CheckFault, CheckRaw)
                     : server.FmUnregisterReportEventImpl(files);
    });
    const auto security = Timed([&] {
        return start ? server.RegIDSEventReportHandlerImpl(CheckRaw) : server.UnregIDSEventReportHandlerImpl();
    });
    return {faults, security};
}

nlohmann::json Obey(const std::string& command)
{
    if (command == "start" || command == "stop") {
        return Subscribe(command == "start");
    }
    if (command == "lost") {
        return {IAMHostLostRecords(RESOURCE_NAMES[ORDINARY]), IAMHostLostRecords(RESOURCE_NAMES[PROCESS_MANAGER]),
                IAMHostLostRecords(RESOURCE_NAMES[SECURITY])};
    }
    held = command == "hold";
    return command;
}

}  // namespace
}  // namespace soak

// The library's calls pass here and are noted.
extern "C" int __wrap_open(const char* name, int flags, ...)
{
    using namespace soak;
    static const auto next = Next<int(const char*, int, ...)>("__wrap_open");
    const uint64_t number = board->opens++;
    if (number >= CONNECTIONS_KEPT) {  // after hours
        abort();
    }
    Connection& connection = board->connections[number];
    const size_t resource = ResourceThat([&](const char* known) { return std::strcmp(known, name) == 0; });
    connection.resource = resource;
    connection.reopened = syscall(SYS_gettid) != getpid();
    connection.begun = Now();
    const int fd = next(name, flags);
    const int error = errno;
    const uint64_t ended = Now();
    connection.openError = fd >= 0 ? 0 : static_cast<uint64_t>(error);
    if (fd >= 0) {
        current[resource] = &connection;
    }
    connection.ended = ended;
    errno = error;
    return fd;
}

extern "C" int64_t IAMFastRead(int fd, void* buffer, size_t length)
{
    using namespace soak;
    static const auto next = Next<decltype(IAMFastRead)>("IAMFastRead");
    thread_local uint64_t reads = 0;
    Connection& connection = ConnectionOfThread();
    int64_t result = next(fd, buffer, length);
    int error = errno;
    if (betrayed && result >= 0 && ++reads % 256 == 0) {
        result = -1;
        error = EPIPE;
    }
    if (result < 0) {
        ++connection.failures;
        connection.failed = Now();
        connection.error = static_cast<uint64_t>(error);
    }
    errno = error;
    return result;
}

int main(int, char** argv)
{
    using namespace soak;
    board = MapBoard<SubscriberBoard>(argv[1]);
    IAMHostObserve(argv[2] == std::string("observe") ? 1 : 0);
    betrayed = argv[3] == std::string("betray");
    for (std::string command; std::getline(std::cin, command) && command != "quit";) {
        std::cout << Obey(command) << std::endl;
    }
    Subscribe(false);
}

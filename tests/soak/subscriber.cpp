// A subscriber of the soak: subscribes to all resources when told to, checks every record as it comes, and notes every
// attempt to open a resource with what came over it.
// Usage: soak_subscriber BOARD. Reads commands from standard input, answers on standard output.
#include <pthread.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "iam.h"
#include "report_event/ReportEventServer.h"
#include "tests/soak/Board.h"

namespace soak {
namespace {

constexpr uint32_t PROCESS_MANAGER_LOST = 0x8C03A000;

Word* board;
// The entry of each resource's open connection. Records of a resource come on one thread at a time.
std::atomic<Word*> current[std::size(RESOURCES)];

template <typename Condition>
size_t ResourceThat(Condition holds)
{
    return static_cast<size_t>(std::find_if(std::begin(RESOURCES), std::end(RESOURCES), holds) - RESOURCES);
}

// How long this thread has been ready to run without a processor: evidence for a time that is too long, no excuse.
uint64_t WaitedForProcessor()
{
    unsigned long long waited = 0;
    if (FILE* const file = fopen("/proc/thread-self/schedstat", "re")) {
        waited = fscanf(file, "%*u %llu", &waited) == 1 ? waited : 0;
        fclose(file);
    }
    return waited;
}

// Which resource a read thread reads, by its name.
size_t ResourceOfThread()
{
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return ResourceThat([&](const char* resource) { return ("Rd_" + std::string(resource)).rfind(name, 0) == 0; });
}

void Check(std::vector<unsigned char> body, size_t offset, int eventId)
{
    thread_local const size_t resource = ResourceOfThread();
    Stamp stamp{};
    if (body.size() < sizeof stamp || !Unseal(body.data(), body.size(), offset, stamp) || stamp.resource != resource ||
        (eventId >= 0 && eventId != static_cast<uint16_t>(stamp.sequence))) {
        ++board[ALTERED];
        return;
    }
    Word* const entry = current[resource];
    const bool first = entry[NEXT + stamp.lane] == 0;
    const uint64_t expected = first ? stamp.sequence : entry[NEXT + stamp.lane].load();
    if (entry[RUN] == 0) {
        entry[RUN] = stamp.run;
    }
    if (first) {
        entry[FIRST + stamp.lane] = stamp.sequence;
    }
    if ((stamp.sequence != expected || stamp.run != entry[RUN]) && entry[GAPS]++ == 0) {
        entry[EXPECTED] = expected;
        entry[SEEN] = stamp.sequence;
    }
    entry[NEXT + stamp.lane] = stamp.sequence + 1;
}

void CheckRaw(const dsmi_event& event)
{
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&event);
    if (event.eventId == PROCESS_MANAGER_LOST) {
        ++board[LOSSES];
    } else {
        Check({bytes, bytes + sizeof event}, offsetof(dsmi_event, eventName), -1);
    }
}

void CheckFault(const EventInfo& event, const UDSInfoForCpp& uds)
{
    Check(uds.didInfo.size() == 1 ? uds.didInfo[0].data : std::vector<unsigned char>(), 0, event.eventId);
}

// Answers with the word, then for each of the two families its result and when the call began and ended.
void Obey()
{
    auto& server = ReportEventServer::GetInstance();
    const std::vector<std::string> faultFiles = {RESOURCES[0], RESOURCES[1]};
    for (std::string command; std::getline(std::cin, command) && command != "quit";) {
        const bool start = command == "start";
        try {
            const uint64_t begun = Now();
            const int fault = start ? server.FmRegisterMidReportEventImpl(faultFiles, CheckFault, CheckRaw)
                                    : server.FmUnregisterReportEventImpl(faultFiles);
            const uint64_t between = Now();
            const int security =
                start ? server.RegIDSEventReportHandlerImpl(CheckRaw) : server.UnregIDSEventReportHandlerImpl();
            std::cout << (start ? "started " : "stopped ") << fault << ' ' << begun << ' ' << between << ' ' << security
                      << ' ' << between << ' ' << Now() << std::endl;
        } catch (const std::exception& error) {
            std::cout << "threw " << error.what() << std::endl;
        }
    }
    server.FmUnregisterReportEventImpl(faultFiles);
    server.UnregIDSEventReportHandlerImpl();
}

}  // namespace
}  // namespace soak

// The library's calls pass here and are noted.
extern "C" int __wrap_open(const char* name, int flags, ...)
{
    using namespace soak;
    static const auto next = Next<int(const char*, int, ...)>("__wrap_open");
    const uint64_t number = board[OPENS]++;
    if (number >= ENTRIES_KEPT) {
        abort();
    }  // the runner starts another subscriber long before
    Word* const entry = board + ENTRIES + number * ENTRY_WORDS;
    const size_t resource = ResourceThat([&](const char* known) { return strcmp(known, name) == 0; });
    entry[RESOURCE] = resource;
    entry[REOPENED] = syscall(SYS_gettid) != getpid();
    const uint64_t waited = WaitedForProcessor();
    entry[BEGUN] = Now();
    const int fd = next(name, flags);
    const int error = errno;
    const uint64_t ended = Now();
    entry[WAITED] = WaitedForProcessor() - waited;
    entry[FD] = static_cast<uint64_t>(fd >= 0 ? fd : -error);
    if (fd >= 0) {
        current[resource] = entry;
    }
    entry[ENDED] = ended;
    errno = error;
    return fd;
}

extern "C" int64_t IAMFastRead(int fd, void* buffer, size_t length)
{
    static const auto next = soak::Next<decltype(IAMFastRead)>("IAMFastRead");
    const int64_t result = next(fd, buffer, length);
    const int error = errno;
    if (result < 0) {
        soak::current[soak::ResourceOfThread()].load()[soak::ERROR] = static_cast<uint64_t>(error);
    }
    errno = error;
    return result;
}

int main(int, char** argv)
{
    soak::board = soak::MapBoard(argv[1], soak::SUBSCRIBER_WORDS);
    soak::Obey();
}

// Fault reporting: the serialized form and its strict decoder, and the dispatcher's promises to its callers.
#include "fte.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>
#include <future>
#include <random>
#include <regex>

#include "include/report_event/EventTypes.h"
#include "platform/host/fte/FaultRecordEncoder.h"
#include "platform/host/fte/FteCodes.h"
#include "platform/host/slog/HostLog.h"

// Arrays that this thread has allocated, and which one of them fails (negative: none).
static thread_local struct {
    int count = 0, fails = -1;
} arrays;
static std::atomic<bool> threadsCannotBeStarted{false};

void* operator new[](size_t n)
{
    return arrays.count++ == arrays.fails ? throw std::bad_alloc() : operator new(n);
}
void operator delete[](void* memory) noexcept
{
    operator delete(memory);
}
void operator delete[](void* memory, size_t) noexcept
{
    operator delete(memory);
}

// Every std::thread of the process starts here.
void std::thread::_M_start_thread(_State_ptr state, void (*depend)())
{
    static const auto start = reinterpret_cast<void (*)(std::thread*, _State_ptr, void (*)())>(
        dlsym(RTLD_NEXT, "_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE"));
    if (threadsCannotBeStarted) {
        throw std::system_error(EAGAIN, std::generic_category());
    }
    start(this, std::move(state), depend);
}

namespace {

using namespace host_platform::fte;
using Bytes = std::vector<unsigned char>;

// ---- The serialized form

FaultEvent Event(const std::string& name, const std::vector<FaultDid>& dids)
{
    return {0xA1B2, 1, 0xC1C2C3C4, 0xD1, 0xE1E2E3E4, name, 0xF1F2, dids};
}

const FaultEvent EXAMPLE = Event("fan", {{0x8182, {0x91, 0x92}}, {0x8384, {}}});
const Bytes EXAMPLE_RECORD = {0x00, 1,    'F',  'T',  'E',  'R',  1, 1,    0xB2, 0xA1, 0xC4, 0xC3, 0xC2,
                              0xC1, 0xE4, 0xE3, 0xE2, 0xE1, 0xD1, 3, 0xF2, 0xF1, 2,    0,    37,   0,
                              'f',  'a',  'n',  0x82, 0x81, 2,    0, 0x91, 0x92, 0x84, 0x83, 0,    0};
const Bytes EXAMPLE_PAYLOAD(EXAMPLE_RECORD.begin() + 2, EXAMPLE_RECORD.end());

// Decodes at the very end of readable memory, and holds the result to what every decoding promises: what decodes is
// encoded to the same bytes again and needs the heap only for its DIDs; what is refused leaves nothing behind.
int Decode(const Bytes& payload, int failing = -1)
{
    static void* const memory = mmap(nullptr, 0x20000, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    unsigned char* const end = static_cast<unsigned char*>(memory) + 0x10000;
    mprotect(end, 0x10000, PROT_NONE);
    FTEInfo info{};
    UDSInfo uds{};
    arrays = {0, failing};
    const int code = FTEDeSerialize(std::copy_backward(payload.begin(), payload.end(), end),
                                    static_cast<unsigned int>(payload.size()), &info, &uds);
    arrays.fails = -1;
    const std::unique_ptr<DidInfo[]> dids(uds.didInfo);
    EXPECT_TRUE(code == FTE_OK || (dids == nullptr && arrays.count == failing + 1));
    if (code != FTE_OK) {
        return code;
    }
    const std::string name(info.eventName, strnlen(info.eventName, sizeof(info.eventName)));
    EXPECT_TRUE(std::all_of(info.eventName + name.size(), std::end(info.eventName), [](char c) { return c == '\0'; }));
    FaultEvent event{info.eventId, info.assertion, info.nodeId, info.deviceId, info.osId, name, uds.udsId, {}};
    for (int i = 0; i < uds.didNum; ++i) {
        event.dids.push_back({dids[i].did, Bytes(dids[i].data, dids[i].data + dids[i].len)});
        arrays.count -= dids[i].len == 0 ? 0 : 1;
    }
    EXPECT_EQ(arrays.count, event.dids.empty() ? 0 : 1);
    EXPECT_EQ(EncodePayload(event), payload);
    return code;
}

TEST(FaultRecord, HasTheDocumentedBytesAndDecodesWheneverItFits)
{
    EXPECT_EQ(EncodeRecord(EXAMPLE, true), EXAMPLE_RECORD);
    EXPECT_EQ(EncodeRecord(EXAMPLE, false)[1], 0);
    const FaultEvent largest = Event("", {{1, Bytes(3930, 0xEE)}});
    EXPECT_EQ(EncodeRecord(largest, false).size(), 3960U);
    const FaultEvent mostDids = Event("", std::vector<FaultDid>(983));
    for (const FaultEvent& event : {FaultEvent(), EXAMPLE, largest, mostDids, Event(std::string(128, '\xff'), {})}) {
        EXPECT_EQ(Decode(EncodePayload(event)), FTE_OK);
    }
    for (const FaultEvent& event : {Event(std::string(129, 'n'), {}), Event("", {{1, Bytes(3931)}}),
                                    Event("", {{1, Bytes(0x10000)}}), Event("", std::vector<FaultDid>(0x10000))}) {
        EXPECT_THROW(EncodePayload(event), std::length_error);
        EXPECT_THROW(EncodeRecord(event, true), std::length_error);
    }
    EXPECT_THROW(EncodePayload(Event(std::string("a\0b", 3), {})), std::invalid_argument);
}

TEST(FaultRecord, IsRefusedWithTheKindOfItsDefect)
{
    // Which byte of the example, its new value, the verdict.
    const std::tuple<size_t, int, int> changes[] = {
        {3, 'Q', FTE_BAD_MAGIC},      {4, 0, FTE_BAD_VERSION},      {4, 2, FTE_BAD_VERSION},
        {22, 36, FTE_TRAILING},       {23, 0xFF, FTE_TRUNCATED},    {17, 129, FTE_BAD_NAME},
        {26, 0, FTE_BAD_NAME},        {17, 14, FTE_INCONSISTENT},   {20, 0, FTE_INCONSISTENT},
        {20, 1, FTE_INCONSISTENT},    {21, 0xFF, FTE_INCONSISTENT}, {29, 10, FTE_INCONSISTENT},
        {30, 0xFF, FTE_INCONSISTENT}, {35, 1, FTE_INCONSISTENT}};
    for (const auto& [offset, value, code] : changes) {
        Bytes payload = EXAMPLE_PAYLOAD;
        payload.at(offset) = static_cast<unsigned char>(value);
        EXPECT_EQ(Decode(payload), code) << "offset " << offset << ", value " << value;
    }
    for (size_t length = 0; length <= 38; ++length) {
        Bytes payload = EXAMPLE_PAYLOAD;
        payload.resize(length);
        EXPECT_EQ(Decode(payload), length < 37 ? FTE_TRUNCATED : length > 37 ? FTE_TRAILING : FTE_OK);
    }
    EXPECT_EQ(Decode(Bytes(3959)), FTE_TOO_LONG);
    FTEInfo info{};
    UDSInfo uds{};
    EXPECT_EQ(FTEDeSerialize(nullptr, 37, &info, &uds), FTE_NULL_ARGUMENT);
    EXPECT_EQ(FTEDeSerialize(&EXAMPLE_PAYLOAD[0], 37, nullptr, &uds), FTE_NULL_ARGUMENT);
    EXPECT_EQ(FTEDeSerialize(&EXAMPLE_PAYLOAD[0], 37, &info, nullptr), FTE_NULL_ARGUMENT);
}

TEST(FaultRecord, KeepsTheDecodersPromisesWhateverItHoldsAndWithoutMemory)
{
    std::mt19937 random(20240229);
    int decoded = 0;
    for (int round = 0; round < 20000 && !HasFailure(); ++round) {
        Bytes payload = round % 2 == 0 ? EXAMPLE_PAYLOAD : EncodePayload(FaultEvent());
        for (unsigned int change = random() % 3 + 1; change > 0; --change) {
            payload[random() % payload.size()] = random() % 4 == 0 ? random() : random() % 8;
        }
        decoded += Decode(payload) == FTE_OK ? 1 : 0;
    }
    EXPECT_GT(decoded, 1000);
    // The array and two data areas fail in turn, then it works.
    const Bytes payload = EncodePayload(Event("fan", {{1, {1}}, {2, {2}}}));
    for (const int n : {0, 1, 2, 3}) {
        EXPECT_EQ(Decode(payload, n), n < 3 ? FTE_NO_RESOURCE : FTE_OK);
    }
}

// ---- Registration and reporting

bool Reaches(const std::atomic<int>& count, int value)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (count < value && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    return count >= value;
}

int Send(const std::string& procName = "process-manager", uint32_t eventId = 0x8C03A000)
{
    FTEReportInfo report{eventId, 0, 0, 0xFFFF, 2, 1, {}, {}, {'r', 'r'}};
    procName.copy(report.procName, sizeof(report.procName));
    return MidFTEReport(&report);
}

// Registers what is done with each record, as the raw event in it.
void Register(const std::function<void(const dsmi_event&)>& action, int result = 0)
{
    const auto callable = [=](const unsigned char* data, unsigned int length) {
        EXPECT_TRUE(length == 362 && data[0] == 0x01 && data[1] == 1);
        dsmi_event event;
        std::memcpy(&event, data + 2, sizeof(event));
        action(event);
        return result;
    };
    EXPECT_EQ(FTERegisterCallback(callable), FTE_OK);
}

struct FaultReporting : testing::Test {
    void TearDown() override
    {
        EXPECT_EQ(FTEUnregisterCallback(), FTE_OK);
    }
};

TEST_F(FaultReporting, DeliversARawDeviceEventOnAnotherThreadAndLogsOneLineAboutIt)
{
    const auto expectLine = [](const std::function<int()>& report, int code, const std::string& end) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(report(), code);
        const std::string text = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(std::regex_match(text, std::regex("[^\n]*" + end + "\n"))) << text;
    };
    expectLine([] { return MidFTEReport(nullptr); }, FTE_NULL_ARGUMENT, "");
    const auto caller = pthread_self();
    const auto start = static_cast<uint64_t>(time(nullptr));
    for (const std::string& name : {std::string("process-manager"), std::string(256, 'u')}) {
        dsmi_event event{};
        std::atomic<int> delivered{0};
        const auto send = [&] { return Send(name); };
        expectLine(send, FTE_OK, "procName=" + name + ": nobody is registered, dropped");
        Register([&](const dsmi_event&) { ++delivered; });  // is replaced
        Register([&](const dsmi_event& delivery) {
            event = delivery;
            delivered += pthread_self() == caller ? 1 : 2;
        });
        expectLine(send, FTE_OK, "procName=" + name + ": queued for delivery");
        EXPECT_TRUE(Reaches(delivered, 2));
        EXPECT_EQ(FTEUnregisterCallback(), FTE_OK);
        EXPECT_LE(event.eventArisedTime / 1000000000U - start, 60U);
        dsmi_event expected{{}, 0x8C03A000, 0xFFFF, 0, 0, {}, 2, 1, 0, 0, {}, event.eventArisedTime, {}, 0, {}};
        name.copy(expected.eventName, sizeof(expected.eventName));
        EXPECT_EQ(std::memcmp(&event, &expected, sizeof(event)), 0);
    }
}

TEST_F(FaultReporting, IsOverOnceUnregistrationHasReturned)
{
    std::atomic<int> steps{0}, stop{0};  // an odd number of steps: a call goes on
    std::thread reporter([&] {
        while (stop == 0) {
            EXPECT_EQ(Send() % FTE_QUEUE_FULL, FTE_OK);
        }
    });
    for (int round = 0; round < 50; ++round) {
        Register([&](const dsmi_event&) {
            ++steps;
            std::this_thread::yield();
            ++steps;
        });
        EXPECT_TRUE(Reaches(steps, steps + 1));
        EXPECT_EQ(FTEUnregisterCallback(), FTE_OK);
        const int after = steps;
        EXPECT_EQ(after % 2, 0);
        std::this_thread::yield();
        EXPECT_EQ(steps, after);
    }
    stop = 1;
    reporter.join();
}

TEST_F(FaultReporting, WaitsInUnregistrationForTheCallInFlightAndDropsTheRest)
{
    std::atomic<int> entered{0}, mayLeave{0}, left{0}, dropped{0}, eventId{0};
    const auto fail = [&](const dsmi_event&) {
        ++entered;
        EXPECT_TRUE(Reaches(mayLeave, 1));
        EXPECT_EQ(FTEUnregisterCallback(), FTE_OK);  // waits neither for this call nor for the other unregistration
        Register([&](const dsmi_event& event) { eventId = static_cast<int>(event.eventId); });
        ++left;
    };
    Register(fail, -1);
    EXPECT_EQ(Send(), FTE_OK);
    ASSERT_TRUE(Reaches(entered, 1));
    Register([&](const dsmi_event&) { ++dropped; });
    // With the one thread busy, exactly the bounded queue takes reports.
    for (int i = 0; i < 1024; ++i) {
        EXPECT_EQ(Send(), FTE_OK);
    }
    EXPECT_EQ(Send(), FTE_QUEUE_FULL);
    auto leaver = std::async(std::launch::async, [&] { return FTEUnregisterCallback() == FTE_OK && left == 1; });
    // The unregistration has begun once reports are accepted, and dropped, again.
    while (Send() == FTE_QUEUE_FULL) {
        std::this_thread::yield();
    }
    ++mayLeave;
    EXPECT_TRUE(leaver.get());
    EXPECT_EQ(Send("later", 5), FTE_OK);
    EXPECT_TRUE(Reaches(eventId, 1) && eventId == 5) << eventId;
    EXPECT_EQ(entered + dropped, 1);
}

// A callable whose copies and end call back into the interface: only possible when no lock is held meanwhile.
struct Reentrant {
    inline static bool copyThrows = false;
    Reentrant() = default;
    Reentrant(const Reentrant&)
    {
        copyThrows ? throw 42 : Send();
    }
    ~Reentrant()
    {
        EXPECT_EQ(Send() + FTEUnregisterCallback(), FTE_OK);
    }
    int operator()(const unsigned char*, unsigned int) const
    {
        return 0;
    }
};

TEST_F(FaultReporting, RunsNoClientCodeUnderItsLockAndLetsNoExceptionOut)
{
    const std::function<int(const unsigned char*, unsigned int)> reentrant = Reentrant();
    EXPECT_EQ(FTERegisterCallback(reentrant), FTE_OK);
    EXPECT_EQ(FTERegisterCallback(reentrant), FTE_OK);
    EXPECT_EQ(FTEUnregisterCallback(), FTE_OK);
    std::atomic<int> delivered{0};
    Register([&](const dsmi_event&) { ++delivered; });
    Reentrant::copyThrows = true;
    EXPECT_EQ(FTERegisterCallback(reentrant), FTE_NO_RESOURCE);
    Reentrant::copyThrows = false;
    EXPECT_EQ(FTERegisterCallback(nullptr), FTE_NULL_ARGUMENT);
    EXPECT_EQ(Send(), FTE_OK);
    EXPECT_TRUE(Reaches(delivered, 1)) << "a failed registration leaves the one before it";
}

// In a process of its own: the thread of this one may be running already, and who is quiet remains so.
TEST_F(FaultReporting, FailsToRegisterWithoutAThreadAndLogsNothingWhenQuiet)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto scenario = [] {
        std::atomic<int> delivered{0};
        const auto callable = [&](const unsigned char*, unsigned int) { return delivered++; };
        threadsCannotBeStarted = true;
        const bool failed = FTERegisterCallback(callable) == FTE_NO_RESOURCE && Send() == FTE_OK;
        threadsCannotBeStarted = false;
        SlogHostQuiet();
        const bool works = FTERegisterCallback(callable) == FTE_OK && Send() == FTE_OK && Reaches(delivered, 1);
        _exit(failed && works ? 0 : 1);
    };
    EXPECT_EXIT(scenario(), testing::ExitedWithCode(0),
                "^[^\n]*FTERegisterCallback failed[^\n]*\n[^\n]*nobody is registered, dropped\n$");
}

}  // namespace

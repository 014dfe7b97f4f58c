// Fault reporting: what this host adds to fte.h: the serialized form, codes, lines and a bounded queue.
#include "fte.h"

#include <climits>
#include <cstring>
#include <future>
#include <regex>

#include "include/report_event/EventTypes.h"
#include "platform/host/fte/FaultRecordEncoder.h"
#include "platform/host/fte/FteCodes.h"
#include "tests/platform/Support.h"

// How many arrays this thread can still have.
static thread_local int arraysLeft = INT_MAX;

void* operator new[](size_t size)
{
    if (arraysLeft-- <= 0) {
        throw std::bad_alloc();
    }
    return operator new(size);
}
void operator delete[](void* memory) noexcept
{
    operator delete(memory);
}
void operator delete[](void* memory, size_t) noexcept
{
    operator delete(memory);
}

namespace {

using namespace host_platform::fte;
using platform_test::Eventually;
using Bytes = std::vector<unsigned char>;

int Send(const std::string& procName = "process-manager")
{
    FTEReportInfo report{0x8C03A000, 0, 0, 0xFFFF, 2, 1, {}, {}, {'r', 'r'}};
    procName.copy(report.procName, sizeof(report.procName));
    return MidFTEReport(&report);
}

// Registers what is done with each record, as the raw event in it.
void Register(const std::function<void(const dsmi_event&)>& action)
{
    const auto callable = [=](const unsigned char* data, unsigned int length) {
        EXPECT_TRUE(length == 362 && data[0] == 0x01 && data[1] == 1);
        dsmi_event event;
        std::memcpy(&event, data + 2, sizeof(event));
        action(event);
        return 0;
    };
    EXPECT_EQ(FTERegisterCallback(callable), FTE_OK);
}

struct FaultReportingHost : testing::Test {
    void TearDown() override
    {
        EXPECT_EQ(FTEUnregisterCallback(), FTE_OK);
    }
};

// Expects one line from the operation, and this end of it.
void ExpectLine(const std::function<int()>& operation, int code, const std::string& end)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(operation(), code);
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(std::regex_match(
        text, std::regex("[^\n]*level=3 module=70: [^\n]*" + end + "( \\([0-9]+ lines left out before\\))?\n")))
        << text;
}

TEST_F(FaultReportingHost, MakesARawDeviceEventOfAReportAndLogsWhatBecameOfIt)
{
    ExpectLine([] { return MidFTEReport(nullptr); }, FTE_NULL_ARGUMENT, "null report");
    ExpectLine([] { return FTERegisterCallback(nullptr); }, FTE_NULL_ARGUMENT, "empty callable");
    const auto start = static_cast<uint64_t>(time(nullptr));
    for (const std::string& name : {std::string("process-manager"), std::string(256, 'u')}) {
        const auto send = [&] { return Send(name); };
        ExpectLine(send, FTE_OK, "procName=" + name + ": nobody is registered, dropped");
        std::promise<dsmi_event> delivery;
        Register([&](const dsmi_event& event) { delivery.set_value(event); });
        ExpectLine(send, FTE_OK, "procName=" + name + ": queued for delivery");
        const dsmi_event event = delivery.get_future().get();
        EXPECT_EQ(FTEUnregisterCallback(), FTE_OK);
        EXPECT_LE(event.eventArisedTime / 1000000000U - start, 60U);
        dsmi_event expected{{}, 0x8C03A000, 0xFFFF, 0, 0, {}, 2, 1, 0, 0, {}, event.eventArisedTime, {}, 0, {}};
        name.copy(expected.eventName, sizeof(expected.eventName));
        EXPECT_EQ(std::memcmp(&event, &expected, sizeof(event)), 0);
    }
}

TEST_F(FaultReportingHost, TakesAsManyReportsAsItsQueueHoldsWhileTheThreadIsBusy)
{
    std::promise<void> entered;
    std::promise<void> mayLeave;
    Register([&](const dsmi_event&) {
        entered.set_value();
        mayLeave.get_future().wait();
        EXPECT_EQ(FTEUnregisterCallback(), FTE_OK);  // drops those that wait
    });
    EXPECT_EQ(Send(), FTE_OK);
    entered.get_future().wait();
    for (int i = 0; i < 1024; ++i) {
        EXPECT_EQ(Send(), FTE_OK);
    }
    EXPECT_EQ(Send(), FTE_QUEUE_FULL);
    mayLeave.set_value();
}

// A callable whose copies and end call back into the interface: only possible when no lock is held meanwhile.
struct Reentrant {
    inline static bool copyThrows = false;
    Reentrant() = default;
    Reentrant(const Reentrant&)
    {
        if (copyThrows) {
            throw 42;
        }
        EXPECT_EQ(Send(), FTE_OK);
    }
    ~Reentrant()
    {
        EXPECT_EQ(FTEUnregisterCallback(), FTE_OK);
    }
    int operator()(const unsigned char*, unsigned int) const
    {
        return 0;
    }
};

TEST_F(FaultReportingHost, RunsNoClientCodeUnderItsLockAndLetsNoExceptionOut)
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
    EXPECT_EQ(Send(), FTE_OK);
    EXPECT_TRUE(Eventually([&] { return delivered == 1; })) << "a failed registration leaves the one before it";
}

// ---- The serialized form, which is this host's own

FaultEvent Event(const std::string& name, const std::vector<FaultDid>& dids)
{
    return {0xA1B2, 1, 0xC1C2C3C4, 0xD1, 0xE1E2E3E4, name, 0xF1F2, dids};
}

const FaultEvent EXAMPLE = Event("fan", {{0x8182, {0x91, 0x92}}, {0x8384, {}}});
const Bytes EXAMPLE_RECORD = {0x00, 1,    'F',  'T',  'E',  'R',  1, 1,    0xB2, 0xA1, 0xC4, 0xC3, 0xC2,
                              0xC1, 0xE4, 0xE3, 0xE2, 0xE1, 0xD1, 3, 0xF2, 0xF1, 2,    0,    37,   0,
                              'f',  'a',  'n',  0x82, 0x81, 2,    0, 0x91, 0x92, 0x84, 0x83, 0,    0};
const Bytes EXAMPLE_PAYLOAD(EXAMPLE_RECORD.begin() + 2, EXAMPLE_RECORD.end());

// Decodes while no more arrays than these can be had: what makes no sense is refused before anything is allocated.
int Decode(const Bytes& payload, int arrays = 0)
{
    FTEInfo info{};
    UDSInfo uds{};
    arraysLeft = arrays;
    const int code = FTEDeSerialize(payload.data(), static_cast<unsigned int>(payload.size()), &info, &uds);
    arraysLeft = INT_MAX;
    const std::unique_ptr<DidInfo[]> dids(uds.didInfo);
    EXPECT_TRUE(code == FTE_OK || dids == nullptr);
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
        EXPECT_EQ(Decode(EncodePayload(event), INT_MAX), FTE_OK);
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
    for (size_t length = 1; length < EXAMPLE_PAYLOAD.size(); ++length) {
        EXPECT_EQ(Decode(Bytes(EXAMPLE_PAYLOAD.begin(), EXAMPLE_PAYLOAD.begin() + length)), FTE_TRUNCATED);
    }
    EXPECT_EQ(Decode(Bytes(3959)), FTE_TOO_LONG);
    Bytes oneTooMany = EXAMPLE_PAYLOAD;
    oneTooMany.push_back(0);
    oneTooMany[22] = 38;
    EXPECT_EQ(Decode(oneTooMany), FTE_INCONSISTENT);
    // The array of DIDs and two data areas fail in turn.
    const Bytes payload = EncodePayload(Event("fan", {{1, {1}}, {2, {2}}}));
    for (const int arrays : {0, 1, 2}) {
        EXPECT_EQ(Decode(payload, arrays), FTE_NO_RESOURCE);
    }
    FTEInfo info{};
    UDSInfo uds{};
    EXPECT_EQ(FTEDeSerialize(nullptr, 37, &info, &uds), FTE_NULL_ARGUMENT);
    EXPECT_EQ(FTEDeSerialize(EXAMPLE_PAYLOAD.data(), 37, nullptr, &uds), FTE_NULL_ARGUMENT);
    EXPECT_EQ(FTEDeSerialize(EXAMPLE_PAYLOAD.data(), 37, &info, nullptr), FTE_NULL_ARGUMENT);
}

}  // namespace

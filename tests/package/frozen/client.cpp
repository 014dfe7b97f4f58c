// A program that was built against the headers of version 1.0 and meets the library of today: every operation is
// reached through its virtual slot, and every field of an event stands where it stood.
#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <numeric>

#include "platform/host/fte/FaultRecordEncoder.h"
#include "report_event/EventRecord.h"
#include "report_event/ReportEventClient.h"
#include "report_event/ReportEventServer.h"
#include "tests/system/Process.h"

namespace {

constexpr const char* RESOURCE = "dp:/res/iam/sec_event";  // the one file that both families can read

// What arrived; an exception if nothing did.
template <typename T>
T Received(std::promise<T>& promise)
{
    auto future = promise.get_future();
    return future.wait_for(system_test::PATIENCE) == std::future_status::ready ? future.get() : throw "nothing came";
}

dsmi_event NumberedEvent(uint32_t number)
{
    dsmi_event event;
    auto* const bytes = reinterpret_cast<unsigned char*>(&event);
    std::iota(bytes, bytes + sizeof(event), static_cast<unsigned char>(7));
    event.eventId = number;
    return event;
}

TEST(FrozenClient, ReachesEveryOperationThroughItsSlot)
{
    const system_test::RuntimeDirectory directory;
    ReportEventClient& publisher = ReportEventClient::GetInstance();
    ReportEventServer& subscriber = ReportEventServer::GetInstance();
    std::promise<std::pair<EventInfo, UDSInfoForCpp>> fault;
    std::promise<dsmi_event> device, security;
    const auto publish = [&](const void* data, size_t size) {
        return publisher.ReportEvent(static_cast<const char*>(data), static_cast<unsigned>(size));
    };
    const auto publishRaw = [&](ReportEvent::EventType family, uint32_t number) {
        const auto record = ReportEvent::MakeRawRecord(family, true, NumberedEvent(number));
        return publish(record.bytes, sizeof(record.bytes));
    };
    const auto noReader = [&] { return publish(nullptr, 1) == 0; };  // else a null record is refused

    EXPECT_EQ(subscriber.RegIDSEventReportHandlerImpl({}), 0xF10005);  // nobody serves the file yet
    EXPECT_EQ(subscriber.UnregIDSEventReportHandlerImpl(), 0xF10206);
    ASSERT_EQ(publisher.RegisterResService(RESOURCE), 0);
    EXPECT_TRUE(noReader());

    const auto takeFault = [&](const EventInfo& event, const UDSInfoForCpp& uds) { fault.set_value({event, uds}); };
    const auto takeDevice = [&](const dsmi_event& event) { device.set_value(event); };
    ASSERT_EQ(subscriber.FmRegisterMidReportEventImpl({RESOURCE}, takeFault, takeDevice), 0);
    EXPECT_EQ(publish(nullptr, 1), 0xF10204);
    EXPECT_EQ(publish("", 3961), 0xF10205);
    EXPECT_EQ(publishRaw(ReportEvent::FAULT_EVENT, 11), 0);
    const dsmi_event sent = NumberedEvent(11), received = Received(device);
    EXPECT_EQ(std::memcmp(&received, &sent, sizeof(sent)), 0);

    const auto record = host_platform::fte::EncodeRecord({0x1234, 1, 2, 3, 4, "name", 5, {{0xF190, {6, 7}}}}, true);
    EXPECT_EQ(publish(record.data(), record.size()), 0);
    const auto [event, uds] = Received(fault);
    EXPECT_EQ(std::make_tuple(event.eventId, event.assertion, event.nodeId, event.deviceId, event.osId),
              std::make_tuple(0x1234, 1, 2, 3, 4));
    EXPECT_STREQ(event.eventPara.buf, "name");
    ASSERT_EQ(uds.didInfo.size(), 1U);
    EXPECT_EQ(std::make_pair(uds.udsId, uds.didInfo[0].did), std::make_pair(uint16_t{5}, uint16_t{0xF190}));
    EXPECT_EQ(uds.didInfo[0].data, (std::vector<uint8_t>{6, 7}));

    EXPECT_EQ(subscriber.FmUnregisterReportEventImpl({"dp:/res/unknown", RESOURCE}), 0xF10206);
    EXPECT_TRUE(system_test::Await(noReader));
    ASSERT_EQ(subscriber.RegIDSEventReportHandlerImpl([&](const dsmi_event& event) { security.set_value(event); }), 0);
    EXPECT_EQ(publishRaw(ReportEvent::SECURITY_EVENT, 12), 0);
    EXPECT_EQ(Received(security).eventId, 12U);
    EXPECT_EQ(subscriber.UnregIDSEventReportHandlerImpl(), 0);
    EXPECT_TRUE(system_test::Await(noReader));
}

}  // namespace

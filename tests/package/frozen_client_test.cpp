// A program that was built against version 1.0 and meets the library of today: every operation is reached through its
// virtual slot, and the numbers and names that were compiled into it still hold.
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <string>
#include <vector>

#include "report_event/EventRecord.h"
#include "report_event/ResourceNames.h"
#include "report_event/ResultCodes.h"
#include "tests/package/Support.h"

// The interfaces of version 1.0: they change only together with the library's SOVERSION.
class ReportEventClient {
public:
    virtual ~ReportEventClient();
    static ReportEventClient& GetInstance();
    virtual int RegisterResService(const std::string& name) = 0;
    virtual int ReportEvent(const char* buf, unsigned int size) = 0;
};

class ReportEventServer {
public:
    virtual ~ReportEventServer();
    static ReportEventServer& GetInstance();
    virtual int FmRegisterMidReportEventImpl(
        const std::vector<std::string>& groupOwnerList,
        const std::function<void(const EventInfo&, const UDSInfoForCpp&)>& eventCallback,
        const std::function<void(const dsmi_event&)>& deviceCallback) = 0;
    virtual int FmUnregisterReportEventImpl(const std::vector<std::string>& groupOwnerList) = 0;
    virtual int RegIDSEventReportHandlerImpl(const std::function<void(const dsmi_event&)>& securityCallback) = 0;
    virtual int UnregIDSEventReportHandlerImpl() = 0;
};

namespace {

constexpr const char* RESOURCE = "dp:/res/iam/sec_event";  // the one file that both families can read

// The event that arrived; 0 if none did.
uint32_t Received(std::promise<uint32_t>& promise)
{
    auto future = promise.get_future();
    return future.wait_for(platform_test::options.patience) == std::future_status::ready ? future.get() : 0;
}

int Publish(ReportEvent::EventType family, uint32_t eventId)
{
    dsmi_event event = {};
    event.eventId = eventId;
    const auto record = ReportEvent::MakeRawRecord(family, true, event);
    return ReportEventClient::GetInstance().ReportEvent(reinterpret_cast<const char*>(record.bytes),
                                                        sizeof(record.bytes));
}

// Else a null record is refused.
bool NobodyReads()
{
    return ReportEventClient::GetInstance().ReportEvent(nullptr, 1) == 0;
}

TEST(FrozenClient, ReachesEveryOperationThroughItsSlot)
{
    const package_test::RuntimeDirectory directory;
    ReportEventServer& subscriber = ReportEventServer::GetInstance();
    std::promise<uint32_t> device;
    std::promise<uint32_t> security;
    const auto onFault = [](const EventInfo&, const UDSInfoForCpp&) {};
    const auto onDevice = [&](const dsmi_event& event) { device.set_value(event.eventId); };
    const auto onSecurity = [&](const dsmi_event& event) { security.set_value(event.eventId); };

    EXPECT_EQ(subscriber.RegIDSEventReportHandlerImpl(onSecurity), 0xF10005);  // nobody serves the file yet
    EXPECT_EQ(subscriber.UnregIDSEventReportHandlerImpl(), 0xF10206);
    ASSERT_EQ(ReportEventClient::GetInstance().RegisterResService(RESOURCE), 0);
    EXPECT_TRUE(NobodyReads());

    ASSERT_EQ(subscriber.FmRegisterMidReportEventImpl({RESOURCE}, onFault, onDevice), 0);
    EXPECT_EQ(ReportEventClient::GetInstance().ReportEvent("", 3961), 0xF10205);
    EXPECT_EQ(Publish(ReportEvent::FAULT_EVENT, 11), 0);
    EXPECT_EQ(Received(device), 11U);
    EXPECT_EQ(subscriber.FmUnregisterReportEventImpl({"dp:/res/unknown", RESOURCE}), 0xF10206);
    EXPECT_TRUE(package_test::Eventually(NobodyReads));

    ASSERT_EQ(subscriber.RegIDSEventReportHandlerImpl(onSecurity), 0);
    EXPECT_EQ(Publish(ReportEvent::SECURITY_EVENT, 12), 0);
    EXPECT_EQ(Received(security), 12U);
    EXPECT_EQ(subscriber.UnregIDSEventReportHandlerImpl(), 0);
    EXPECT_TRUE(package_test::Eventually(NobodyReads));
}

TEST(FrozenClient, KnowsTheResultsAndTheResourcesOfToday)
{
    using namespace ReportEvent;
    EXPECT_EQ(
        (std::vector{RESULT_OK, RESULT_OPEN_FAILED, RESULT_NULL_POINTER, RESULT_WRONG_SIZE, RESULT_BAD_NAME,
                     RESULT_SERVICE_FAILED, RESULT_POOL_FAILED, RESULT_NO_BLOCK, RESULT_WRITE_FAILED,
                     RESULT_ENQUEUE_FAILED}),
        (std::vector{0, 0xF10005, 0xF10204, 0xF10205, 0xF10206, 0xF10207, 0xF10208, 0xF10209, 0xF1020A, 0xF1020B}));
    EXPECT_STREQ(PM_FAULT_RESOURCE, "dp:/res/pm/fm");
    EXPECT_STREQ(SEA_PM_FAULT_RESOURCE, "sea:/res/pm/fm");
    EXPECT_STREQ(SECURITY_RESOURCE, RESOURCE);
    EXPECT_EQ(PM_LOST_EVENT_ID, 0x8C03A000U);
}

}  // namespace

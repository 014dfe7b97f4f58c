// A program that was built against version 1.0 loads the library of today and unloads it: every operation is reached
// through its virtual slot, the numbers and names that were compiled into it still hold, and nothing stays.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
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
    virtual int RegisterResService(const std::string& name) = 0;
    virtual int ReportEvent(const char* buf, unsigned int size) = 0;
};

class ReportEventServer {
public:
    virtual ~ReportEventServer();
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

template <typename Interface>
Interface& Instance(void* library, const char* name)
{
    void* const getInstance = dlsym(library, name);
    EXPECT_NE(getInstance, nullptr) << dlerror();
    return reinterpret_cast<Interface& (*)()>(getInstance)();
}

int Publish(ReportEventClient& publisher, ReportEvent::EventType family, uint32_t eventId)
{
    dsmi_event event = {};
    event.eventId = eventId;
    const auto record = ReportEvent::MakeRawRecord(family, true, event);
    return publisher.ReportEvent(reinterpret_cast<const char*>(record.bytes), sizeof(record.bytes));
}

// Keeps a reference to `held` as long as the library keeps the callbacks.
void UseEveryOperation(void* library, const std::shared_ptr<int>& held)
{
    auto& publisher = Instance<ReportEventClient>(library, "_ZN17ReportEventClient11GetInstanceEv");
    auto& subscriber = Instance<ReportEventServer>(library, "_ZN17ReportEventServer11GetInstanceEv");
    std::promise<uint32_t> device;
    std::promise<uint32_t> security;
    const auto onFault = [](const EventInfo&, const UDSInfoForCpp&) {};
    const auto onDevice = [held, &device](const dsmi_event& event) { device.set_value(event.eventId); };
    const auto onSecurity = [&](const dsmi_event& event) { security.set_value(event.eventId); };
    // Else a null record is refused.
    const auto nobodyReads = [&] { return publisher.ReportEvent(nullptr, 1) == 0; };

    EXPECT_EQ(subscriber.RegIDSEventReportHandlerImpl(onSecurity), 0xF10005);  // nobody serves the file yet
    EXPECT_EQ(subscriber.UnregIDSEventReportHandlerImpl(), 0xF10206);
    ASSERT_EQ(publisher.RegisterResService(RESOURCE), 0);
    EXPECT_TRUE(nobodyReads());

    ASSERT_EQ(subscriber.FmRegisterMidReportEventImpl({RESOURCE}, onFault, onDevice), 0);
    EXPECT_EQ(publisher.ReportEvent("", 3961), 0xF10205);
    EXPECT_EQ(Publish(publisher, ReportEvent::FAULT_EVENT, 11), 0);
    EXPECT_EQ(Received(device), 11U);
    EXPECT_EQ(subscriber.FmUnregisterReportEventImpl({"dp:/res/unknown", RESOURCE}), 0xF10206);
    EXPECT_TRUE(package_test::Eventually(nobodyReads));

    ASSERT_EQ(subscriber.RegIDSEventReportHandlerImpl(onSecurity), 0);
    EXPECT_EQ(Publish(publisher, ReportEvent::SECURITY_EVENT, 12), 0);
    EXPECT_EQ(Received(security), 12U);
    EXPECT_EQ(subscriber.UnregIDSEventReportHandlerImpl(), 0);
    EXPECT_TRUE(package_test::Eventually(nobodyReads));
}

size_t CountEntries(const char* directory)
{
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

TEST(FrozenClient, ReachesEveryOperationThroughItsSlotAndUnloadsTheLibraryWhole)
{
    const package_test::RuntimeDirectory directory;
    size_t threads = 0;
    size_t descriptors = 0;
    for (const bool isFirst : {true, false}) {
        void* const library = dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        const auto held = std::make_shared<int>(0);
        ASSERT_NO_FATAL_FAILURE(UseEveryOperation(library, held));
        EXPECT_GT(held.use_count(), 1);  // an unregistration keeps the callbacks
        ASSERT_EQ(dlclose(library), 0);
        signal(SIGPIPE, SIG_IGN);  // the library's handler went with it

        EXPECT_EQ(held.use_count(), 1) << "the subscriber was not destroyed";
        EXPECT_EQ(dlopen(LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the library is still there";
        if (isFirst) {  // what there is more now is the platform's, which stays
            threads = CountEntries("/proc/self/task");
            descriptors = CountEntries("/proc/self/fd");
        }
        // A thread leaves /proc after its join.
        EXPECT_TRUE(package_test::Eventually([&] { return CountEntries("/proc/self/task") <= threads; }));
        EXPECT_EQ(CountEntries("/proc/self/fd"), descriptors);
    }
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

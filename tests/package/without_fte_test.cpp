// A process without the fault-reporting library loads this one, publishes and subscribes. Where that library would have
// been called, there is a failure with its message, and the process goes on.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <filesystem>
#include <future>
#include <iterator>

#include "report_event/EventRecord.h"
#include "report_event/ReportEventClient.h"
#include "report_event/ReportEventServer.h"
#include "report_event/ResourceNames.h"
#include "tests/package/Support.h"

namespace {

std::ptrdiff_t CountThreads()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

TEST(WithoutFaultReporting, AProcessPublishesAndSubscribesAndMeetsFailures)
{
    ASSERT_EQ(dlsym(RTLD_DEFAULT, "FTERegisterCallback"), nullptr) << "this program was to lack it";
    const package_test::RuntimeDirectory directory;
    testing::internal::CaptureStderr();
    ReportEventClient& publisher = ReportEventClient::GetInstance();
    ReportEventServer& subscriber = ReportEventServer::GetInstance();

    ASSERT_EQ(publisher.RegisterResService(ReportEvent::SECURITY_RESOURCE), 0);
    std::promise<void> arrived;
    ASSERT_EQ(subscriber.RegIDSEventReportHandlerImpl([&](const dsmi_event&) { arrived.set_value(); }), 0);
    const char serializedFault[] = {ReportEvent::RECORD_HEADER_FTE_FAULT, 0, 'x'};
    EXPECT_EQ(publisher.ReportEvent(serializedFault, sizeof(serializedFault)), 0);
    const auto record = ReportEvent::MakeRawRecord(ReportEvent::SECURITY_EVENT, false, {});
    EXPECT_EQ(publisher.ReportEvent(reinterpret_cast<const char*>(record.bytes), sizeof(record.bytes)), 0);
    EXPECT_EQ(arrived.get_future().wait_for(platform_test::options.patience), std::future_status::ready);

    const std::string resource = ReportEvent::PM_FAULT_RESOURCE;
    FILE* const manager =
        popen(("echo $$; exec " TEST_EMULATOR " '" PUBLISHER "' --wait --serve --resource " + resource).c_str(), "re");
    pid_t pid = 0;
    ASSERT_EQ(std::fscanf(manager, "%d serving %*s", &pid), 1);
    EXPECT_EQ(subscriber.FmRegisterMidReportEventImpl({resource}, nullptr, nullptr), 0);
    const auto threads = CountThreads();
    kill(pid, SIGKILL);
    EXPECT_TRUE(
        package_test::Eventually([&] { return CountThreads() < threads; }));  // the read thread has reported the loss
    EXPECT_EQ(subscriber.FmUnregisterReportEventImpl({resource}), 0);
    EXPECT_EQ(subscriber.UnregIDSEventReportHandlerImpl(), 0);
    pclose(manager);

    const std::string log = testing::internal::GetCapturedStderr();
    for (const char* failure :
         {"FTEDeSerialize err ret=-1", "FTERegister pm fault report Callback failed, ret=0xFFFFFFFF",
          "PROCMGR FTEReport err res=0xFFFFFFFF", "FTEUnregisterCallback ret=0xFFFFFFFF"}) {
        EXPECT_NE(log.find(failure), std::string::npos) << failure << " is not in:\n" << log;
    }
}

}  // namespace

// A process without the fault-reporting library loads this one, publishes and subscribes. Where that library would have
// been called, there is a failure with its message, and the process goes on.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <fstream>
#include <future>
#include <iterator>

#include "report_event/EventRecord.h"
#include "report_event/ReportEventClient.h"
#include "report_event/ReportEventServer.h"
#include "report_event/ResourceNames.h"
#include "tests/system/Process.h"

namespace {

// What the process writes to its standard error.
class Log {
public:
    Log()
    {
        dup2(file_, STDERR_FILENO);
    }

    std::string Text() const
    {
        std::ifstream stream("/proc/self/fd/" + std::to_string(file_));
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    bool Holds(const std::string& text) const
    {
        return Text().find(text) != std::string::npos;
    }

private:
    const int file_ = memfd_create("standard error", MFD_CLOEXEC);
};

TEST(WithoutFaultReporting, AProcessPublishesAndSubscribesAndMeetsFailures)
{
    ASSERT_EQ(dlsym(RTLD_DEFAULT, "FTERegisterCallback"), nullptr) << "this program was to lack it";
    const system_test::RuntimeDirectory directory;
    const Log log;
    ReportEventClient& publisher = ReportEventClient::GetInstance();
    ReportEventServer& subscriber = ReportEventServer::GetInstance();

    ASSERT_EQ(publisher.RegisterResService(ReportEvent::SECURITY_RESOURCE), 0);
    std::promise<void> arrived;
    ASSERT_EQ(subscriber.RegIDSEventReportHandlerImpl([&](const dsmi_event&) { arrived.set_value(); }), 0);
    const char serializedFault[] = {ReportEvent::RECORD_HEADER_FTE_FAULT, 0, 'x'};
    EXPECT_EQ(publisher.ReportEvent(serializedFault, sizeof(serializedFault)), 0);
    const auto record = ReportEvent::MakeRawRecord(ReportEvent::SECURITY_EVENT, false, {});
    EXPECT_EQ(publisher.ReportEvent(reinterpret_cast<const char*>(record.bytes), sizeof(record.bytes)), 0);
    EXPECT_EQ(arrived.get_future().wait_for(system_test::PATIENCE), std::future_status::ready);
    EXPECT_EQ(subscriber.UnregIDSEventReportHandlerImpl(), 0);

    const std::string resource = ReportEvent::PM_FAULT_RESOURCE;
    system_test::Process manager({PUBLISHER, "--resource", resource, "--wait", "--serve"});
    ASSERT_TRUE(manager.WaitForOutput("serving")) << manager.Transcript();
    EXPECT_EQ(subscriber.FmRegisterMidReportEventImpl({resource}, nullptr, nullptr), 0);
    manager.Stop(SIGKILL);
    EXPECT_TRUE(system_test::Await([&] { return log.Holds("PROCMGR FTEReport err res=0xFFFFFFFF"); }));
    EXPECT_EQ(subscriber.FmUnregisterReportEventImpl({resource}), 0);

    for (const char* failure : {"FTEDeSerialize err ret=-1", "FTEUnregisterCallback ret=0xFFFFFFFF",
                                "FTERegister pm fault report Callback failed, ret=0xFFFFFFFF"}) {
        EXPECT_TRUE(log.Holds(failure)) << failure << " is not in:\n" << log.Text();
    }
}

}  // namespace

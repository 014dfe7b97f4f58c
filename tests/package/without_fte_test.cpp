// A process manager that has no fault-reporting library loads the library and publishes through it.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "iam.h"
#include "report_event/EventRecord.h"
#include "report_event/ReportEventClient.h"
#include "tests/system/Process.h"

namespace {

TEST(ProcessManager, PublishesWithoutTheFaultReportingLibrary)
{
    const system_test::RuntimeDirectory directory;
    ASSERT_EQ(dlopen(LIBRARY, RTLD_NOW), nullptr);  // as with LD_BIND_NOW: this program really lacks it
    ASSERT_NE(std::strstr(dlerror(), "undefined symbol"), nullptr);

    void* const getInstance = dlsym(dlopen(LIBRARY, RTLD_LAZY), "_ZN17ReportEventClient11GetInstanceEv");
    ASSERT_NE(getInstance, nullptr) << dlerror();
    ReportEventClient& publisher = reinterpret_cast<ReportEventClient& (*)()>(getInstance)();
    ASSERT_EQ(publisher.RegisterResService("dp:/res/pm/fm"), 0);

    const int reader = open("dp:/res/pm/fm", O_RDWR);
    ASSERT_GE(reader, 0);
    const auto record = ReportEvent::MakeRawRecord(ReportEvent::FAULT_EVENT, true, {});
    EXPECT_EQ(publisher.ReportEvent(reinterpret_cast<const char*>(record.bytes), sizeof(record.bytes)), 0);
    unsigned char buffer[ReportEvent::RECORD_SIZE_MAX];
    ASSERT_EQ(IAMFastRead(reader, buffer, sizeof(buffer)), static_cast<int64_t>(sizeof(record.bytes)));
    EXPECT_EQ(std::memcmp(buffer, record.bytes, sizeof(record.bytes)), 0);
    close(reader);
}

}  // namespace

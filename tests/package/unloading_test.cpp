// A host that loads the library, subscribes, unsubscribes and unloads it, twice: nothing of it stays.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <memory>

#include "fte.h"
#include "report_event/ReportEventClient.h"
#include "report_event/ReportEventServer.h"
#include "tests/package/Support.h"

namespace {

constexpr const char* RESOURCE = "dp:/res/unloading";

template <typename Interface>
Interface& Instance(void* library, const char* name)
{
    void* const getInstance = dlsym(library, name);
    EXPECT_NE(getInstance, nullptr) << dlerror();
    return reinterpret_cast<Interface& (*)()>(getInstance)();
}

size_t CountEntries(const char* directory)
{
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

void SubscribeOnce(void* library, const std::shared_ptr<int>& held)
{
    auto& subscriber = Instance<ReportEventServer>(library, "_ZN17ReportEventServer11GetInstanceEv");
    Instance<ReportEventClient>(library, "_ZN17ReportEventClient11GetInstanceEv");
    std::atomic<int> arrived{0};
    const auto callback = [held, &arrived](const auto&...) { ++arrived; };
    ASSERT_EQ(subscriber.FmRegisterMidReportEventImpl({RESOURCE}, callback, callback), 0);
    EXPECT_TRUE(package_test::Eventually([&] { return arrived > 0; }));
    EXPECT_EQ(subscriber.FmUnregisterReportEventImpl({RESOURCE}), 0);
}

TEST(Unloading, RunsTheDestructorsAndLeavesNothingTwice)
{
    const package_test::RuntimeDirectory directory;
    const package_test::Publisher publisher(RESOURCE, "--wait --quiet --count 1000000 --interval 20");
    // The platform keeps what it starts at its first use: a thread for deliveries, and one that follows open files.
    close(open(RESOURCE, O_RDWR));
    FTERegisterCallback([](const unsigned char*, unsigned) { return 0; });
    FTEUnregisterCallback();
    const size_t threads = CountEntries("/proc/self/task");
    const size_t descriptors = CountEntries("/proc/self/fd");

    for (const int round : {1, 2}) {
        SCOPED_TRACE(round);
        void* const library = dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        const auto held = std::make_shared<int>(0);
        ASSERT_NO_FATAL_FAILURE(SubscribeOnce(library, held));
        EXPECT_GT(held.use_count(), 1);  // an unregistration keeps the callbacks
        ASSERT_EQ(dlclose(library), 0);
        signal(SIGPIPE, SIG_IGN);  // the library's handler went with it

        EXPECT_EQ(held.use_count(), 1) << "the subscriber was not destroyed";
        EXPECT_EQ(dlopen(LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the library is still there";
        package_test::Eventually(
            [&] { return CountEntries("/proc/self/task") == threads; });  // leaves /proc after its join
        EXPECT_EQ(CountEntries("/proc/self/task"), threads);
        EXPECT_EQ(CountEntries("/proc/self/fd"), descriptors);
    }
}

}  // namespace

// A host that loads the library, subscribes, unsubscribes and unloads it, twice: nothing of it stays.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <set>
#include <thread>

#include "fte.h"
#include "report_event/ReportEventClient.h"
#include "report_event/ReportEventServer.h"
#include "tests/system/Process.h"

namespace {

using Lines = std::multiset<std::string>;

constexpr const char* RESOURCE = "dp:/res/unloading";

template <typename Function> Function* Symbol(void* library, const char* name) {
    void* address = dlsym(library, name);
    EXPECT_NE(address, nullptr) << dlerror();
    return reinterpret_cast<Function*>(address);
}

// What the process holds: its threads, its descriptors by target, its mapped files.
Lines Belongings() {
    Lines found;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        static_cast<void>(task);
        found.insert("thread");
    }
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code goneMeanwhile;
        const auto target = std::filesystem::read_symlink(entry.path(), goneMeanwhile).string();
        found.insert("descriptor " + target.substr(0, target.find("/proc/")));  // but not the number of this process
    }
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (const size_t path = line.find('/'); path != std::string::npos) {
            found.insert("mapping " + line.substr(path));
        }
    }
    return found;
}

// What the process holds beyond, or short of, `expected`. A joined thread leaves /proc a moment later.
Lines DifferenceFrom(const Lines& expected) {
    const auto deadline = std::chrono::steady_clock::now() + system_test::PATIENCE;
    Lines difference;
    do {
        std::this_thread::yield();
        const Lines found = Belongings();
        difference.clear();
        std::set_symmetric_difference(found.begin(), found.end(), expected.begin(), expected.end(),
                                      std::inserter(difference, difference.end()));
    } while (!difference.empty() && std::chrono::steady_clock::now() < deadline);
    return difference;
}

void SubscribeOnce(void* library, const std::shared_ptr<int>& held) {
    auto& subscriber = Symbol<ReportEventServer&()>(library, "_ZN17ReportEventServer11GetInstanceEv")();
    Symbol<ReportEventClient&()>(library, "_ZN17ReportEventClient11GetInstanceEv")();
    std::promise<void> arrived;
    bool first = true;
    const auto callback = [held, &arrived, &first](const auto&...) {
        if (std::exchange(first, false)) { arrived.set_value(); }
    };
    ASSERT_EQ(subscriber.FmRegisterMidReportEventImpl({RESOURCE}, callback, callback), 0);
    EXPECT_EQ(arrived.get_future().wait_for(system_test::PATIENCE), std::future_status::ready);
    EXPECT_EQ(subscriber.FmUnregisterReportEventImpl({RESOURCE}), 0);
}

TEST(Unloading, RunsTheDestructorsAndLeavesNothingTwice) {
    const system_test::RuntimeDirectory directory;
    const std::string runtime = "IAM_RUNTIME_DIR=" + directory.Path();
    setenv("IAM_RUNTIME_DIR", directory.Path().c_str(), 1);
    system_test::Process publisher(
        {PUBLISHER, "--resource", RESOURCE, "--wait", "--count", "1000000", "--interval", "20"}, {runtime});
    ASSERT_TRUE(publisher.WaitForOutput("serving")) << publisher.Transcript();
    // The platform keeps what it starts at its first use: a thread for deliveries.
    FTERegisterCallback([](const unsigned char*, unsigned) { return 0; });
    FTEUnregisterCallback();
    const auto before = Belongings();

    for (int round = 1; round <= 2; ++round) {
        SCOPED_TRACE(round);
        void* library = dlopen(LIBRARY, RTLD_LAZY | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        const auto held = std::make_shared<int>(0);
        ASSERT_NO_FATAL_FAILURE(SubscribeOnce(library, held));
        EXPECT_GT(held.use_count(), 1);  // an unregistration keeps the callbacks
        ASSERT_EQ(dlclose(library), 0);
        signal(SIGPIPE, SIG_IGN);  // the library's handler went with it

        EXPECT_EQ(held.use_count(), 1) << "the subscriber was not destroyed";
        EXPECT_EQ(dlopen(LIBRARY, RTLD_LAZY | RTLD_NOLOAD), nullptr) << "the library is still there";
        EXPECT_EQ(DifferenceFrom(before), Lines());
    }
}

}  // namespace

// What these tests stand on: a private runtime directory, and a publisher in a process of its own.
#ifndef REPORT_EVENT_TESTS_PACKAGE_SUPPORT_H
#define REPORT_EVENT_TESTS_PACKAGE_SUPPORT_H

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/platform/Support.h"

namespace package_test {

using platform_test::Eventually;

class RuntimeDirectory {
public:
    RuntimeDirectory()
    {
        EXPECT_NE(mkdtemp(path_.data()), nullptr);
        setenv("IAM_RUNTIME_DIR", path_.c_str(), 1);
    }
    ~RuntimeDirectory()
    {
        std::filesystem::remove_all(path_);
    }
    RuntimeDirectory(const RuntimeDirectory&) = delete;

private:
    std::string path_ = testing::TempDir() + "report-event-XXXXXX";
};

// Serves the resource already, and publishes once somebody reads it. Killed at the end at the latest.
class Publisher {
public:
    Publisher(const std::string& resource, const std::string& arguments)
        : output_(popen(
              ("echo $$; exec " TEST_EMULATOR " '" PUBLISHER "' --resource " + resource + " " + arguments).c_str(),
              "re"))
    {
        char served[256] = {};
        EXPECT_EQ(std::fscanf(output_, "%d serving %255s", &pid_, served), 2);
        EXPECT_EQ(served, resource);
    }
    ~Publisher()
    {
        Kill();
        pclose(output_);
    }
    Publisher(const Publisher&) = delete;

    void Kill()
    {
        kill(pid_, SIGKILL);
    }

private:
    FILE* const output_;
    pid_t pid_ = 0;
};

}  // namespace package_test

#endif  // REPORT_EVENT_TESTS_PACKAGE_SUPPORT_H

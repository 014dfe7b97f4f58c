// What these tests stand on: a private runtime directory.
#ifndef REPORT_EVENT_TESTS_PACKAGE_SUPPORT_H
#define REPORT_EVENT_TESTS_PACKAGE_SUPPORT_H

#include <gtest/gtest.h>

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

}  // namespace package_test

#endif  // REPORT_EVENT_TESTS_PACKAGE_SUPPORT_H

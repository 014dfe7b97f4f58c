// What the tests of the host's IAM stand on besides: a private runtime directory, and limits of this process.
#ifndef REPORT_EVENT_TESTS_UNIT_IAM_SUPPORT_H
#define REPORT_EVENT_TESTS_UNIT_IAM_SUPPORT_H

#include <sys/resource.h>

#include <filesystem>

#include "tests/platform/IamSupport.h"

namespace iam_test {

using namespace platform_test;

constexpr char NAME[] = "dp:/res/unit/events";

inline auto OpenDescriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// Every test has a runtime directory of its own and leaves no descriptor and no file behind.
class IamTest : public testing::Test {
protected:
    IamTest()
    {
        Reader::openBound = std::chrono::milliseconds(1700);  // one second, and a busy machine
        char path[] = "/tmp/iam-unit-XXXXXX";
        directory = mkdtemp(path);
        setenv("IAM_RUNTIME_DIR", path, 1);
        {
            const Publisher warmUp(1);
            const Reader reader;
        }  // the threads and their descriptors stay
        descriptors_ = OpenDescriptors();
    }
    ~IamTest() override
    {
        EXPECT_TRUE(Eventually([&] { return OpenDescriptors() == descriptors_; }));
        EXPECT_TRUE(std::filesystem::is_empty(directory));
        std::filesystem::remove_all(directory);
    }
    std::string SocketPath() const
    {
        return directory + "/dp%3A%2Fres%2Funit%2Fevents";
    }

    std::string directory;

private:
    std::ptrdiff_t descriptors_ = 0;
};

// Sets a soft limit of this process while it lives.
class Limit {
public:
    Limit(int resource, rlim_t value) : resource_(resource)
    {
        getrlimit(resource_, &before_);
        const rlimit limit{value, before_.rlim_max};
        EXPECT_EQ(0, setrlimit(resource_, &limit));
    }
    ~Limit()
    {
        setrlimit(resource_, &before_);
    }
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;

private:
    const int resource_;
    rlimit before_{};
};

}  // namespace iam_test

#endif  // REPORT_EVENT_TESTS_UNIT_IAM_SUPPORT_H

// The outbox of report-event-forward: what has been appended is there, whatever becomes of the process.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "tools/forward/Outbox.h"

namespace tools::forward {
namespace {

class OutboxTest : public testing::Test {
protected:
    OutboxTest()
    {
        std::string path = testing::TempDir() + "outbox-XXXXXX";
        EXPECT_NE(mkdtemp(path.data()), nullptr);
        directory_ = path;
    }
    ~OutboxTest() override
    {
        std::filesystem::remove_all(directory_);
    }

    std::filesystem::path directory_;
};

// Killed right behind it: a process of its own, so that nothing is left to write.
TEST_F(OutboxTest, StoresBeforeAppendReturnsAndGivesNoNumberTwice)
{
    const std::string path = directory_ / "outbox";
    for (const bool powerSafe : {false, true}) {
        EXPECT_EXIT(
            {
                Outbox outbox(path, 10, powerSafe);
                outbox.Append("resource/device", "{}");
                raise(SIGKILL);
            },
            testing::KilledBySignal(SIGKILL), "");
    }
    std::string identifier;
    for (const int64_t expected : {2, 3, 4}) {  // the first time they are both there, then none
        Outbox outbox(path, 10, false);
        EXPECT_EQ(identifier.empty() || identifier == outbox.Identifier(), true);
        identifier = outbox.Identifier();
        if (expected > 2) {
            outbox.Append("resource/device", "{}");
        }
        const auto events = outbox.ReadAfter(0, 10);
        ASSERT_EQ(events.size(), expected == 2 ? 2U : 1U);
        EXPECT_EQ(events.back().sequence, expected);
        outbox.Remove(expected);
    }
}

TEST_F(OutboxTest, OpensAgainWhateverItsSize)
{
    for (int pages = 0; pages < 100; ++pages) {
        const std::string path = directory_ / std::to_string(pages);
        Outbox filled(path, 100, false);
        for (int page = 0; page < pages; ++page) {
            filled.Append("resource/device", std::string(4000, 'x'));
        }
        std::filesystem::copy(path, path + "-copy");
        std::filesystem::copy(path + "-wal", path + "-copy-wal");
        EXPECT_NO_THROW(Outbox(path + "-copy", 100, false)) << pages;
    }
}

}  // namespace
}  // namespace tools::forward

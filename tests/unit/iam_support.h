// What the IAM tests stand on: a private runtime directory, the resource-file calls, a publisher as the library's
// publishing half is one, and this program in another role.
#ifndef REPORT_EVENT_TESTS_UNIT_IAM_SUPPORT_H
#define REPORT_EVENT_TESTS_UNIT_IAM_SUPPORT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "iam.h"

// Resource files are opened and closed by name through the linker. Against another implementation of the platform
// these two are plain open and close.
extern "C" {
int OpenResource(const char* name, int flags, ...) __asm__("__wrap_open");
int CloseResource(int fd) __asm__("__wrap_close");
}

namespace iam_test {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds PATIENCE{30};           // far above anything that is expected to happen
constexpr std::chrono::milliseconds OPEN_BOUND{1700};  // one second, and a busy machine
constexpr char NAME[] = "dp:/res/unit/events";

inline bool Eventually(const std::function<bool()>& condition)
{
    for (const auto deadline = Clock::now() + PATIENCE; !condition(); std::this_thread::yield()) {
        if (Clock::now() > deadline) {
            return false;
        }
    }
    return true;
}

// The exit code of this process, or 128 and the signal that ended it.
inline int StatusOf(pid_t pid)
{
    int status = 0;
    EXPECT_EQ(pid, waitpid(pid, &status, 0));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Runs the test "Role.DISABLED_<role>" in a process of its own; it ends with 0 unless an expectation failed. Its
// standard error goes to the file of this name, if there is one.
inline pid_t StartRole(const std::string& role, const std::string& errors = "")
{
    std::string filter = "--gtest_filter=Role.DISABLED_" + role;
    char self[] = "/proc/self/exe";
    char run[] = "--gtest_also_run_disabled_tests";
    char brief[] = "--gtest_brief=1";
    char* arguments[] = {self, run, brief, filter.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (!errors.empty()) {
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    }
    pid_t pid = -1;
    EXPECT_EQ(0, posix_spawn(&pid, self, &actions, nullptr, arguments, environ));
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

inline std::string Numbered(size_t number, size_t size)
{
    std::string record = std::to_string(number) + ":";
    record.resize(std::max(size, record.size()), static_cast<char>('a' + number % 26));
    return record;
}

// Receives notifications as the publishing half does: the newest reader is the current one.
struct Receiver {
    std::mutex mutex;
    IAMRTFSMgrFile* current = nullptr;
    std::vector<uint64_t> opens;       // the handles, in the order of the notifications
    std::vector<uint64_t> closes;      // the same
    std::function<void()> whenOpened;  // runs inside the notification, without the lock
    std::atomic<size_t> opened{0};
    std::atomic<size_t> closed{0};
};
inline Receiver receiver;

inline int OnOpen(IAMRTFSMgrFile* file)
{
    {
        const std::lock_guard<std::mutex> lock(receiver.mutex);
        receiver.current = file;
        receiver.opens.push_back(file->dataHandle);
        ++receiver.opened;
    }
    if (receiver.whenOpened) {
        receiver.whenOpened();
    }
    return 0;
}

inline int OnClose(IAMRTFSMgrFile* file)
{
    const std::lock_guard<std::mutex> lock(receiver.mutex);
    if (receiver.current == file) {
        receiver.current = nullptr;
    }
    EXPECT_NE(nullptr, strstr(file->name, ":/res/"));  // the object still lives
    receiver.closes.push_back(file->dataHandle);
    ++receiver.closed;
    return 0;
}

struct Publisher {
    // Serves and has a pool, unless that is the test's affair.
    explicit Publisher(uint32_t blocks = 0, const char* name = NAME) : name(name)
    {
        receiver.current = nullptr;
        receiver.whenOpened = nullptr;
        receiver.opens.clear();
        receiver.closes.clear();
        receiver.opened = 0;
        receiver.closed = 0;
        if (blocks != 0) {
            EXPECT_EQ(0, Serve());
            EXPECT_EQ(0, MakePool(blocks));
        }
    }
    ~Publisher()
    {
        IAMShmDestroyPool(&pool);
    }

    int Serve(IAMFileNotification open = OnOpen, IAMFileNotification close = OnClose) const
    {
        // Records live only as long as the call, as the library's do.
        char copy[256] = {};
        name.copy(copy, sizeof(copy) - 1);
        IAMFileOperations operations{nullptr, nullptr, open, close, nullptr};
        IAMRTServiceRecord record{copy, &operations, {500, 0, 10, 1}};
        return IAMRegisterRTService(&record);
    }
    int MakePool(uint32_t blocks, uint32_t blockSize = 4032)
    {
        IAMShmPoolConfig config{name.c_str(), blocks * blockSize, blocks};
        return IAMShmRegisterPoolWithConfig(&config, &pool);
    }
    // 0, or the result of the call that failed; 1 when no reader is there.
    int Publish(const std::string& record)
    {
        const std::lock_guard<std::mutex> lock(receiver.mutex);
        if (receiver.current == nullptr) {
            return 1;
        }
        const auto size = static_cast<uint32_t>(record.size());
        int result = IAMShmHandleMalloc(&pool, size, &block);
        if (result != 0) {
            return result;
        }
        IAMDataPackage package{&pool, &block, 1};
        result = IAMShmWrite(&block, record.data(), size, 0);
        result = result != 0 ? result : IAMRTDataEnqueue(receiver.current->dataHandle, &package);
        if (result != 0) {
            EXPECT_EQ(0, IAMShmFree(&pool, &block));
        }
        return result;
    }
    void PublishNumbered(size_t count, size_t size)
    {
        for (size_t i = 0; i < count; ++i) {
            ASSERT_EQ(0, Publish(Numbered(i, size))) << i;
        }
    }
    // How many blocks can be had right now; all are given back.
    size_t FreeBlocks()
    {
        const std::lock_guard<std::mutex> lock(receiver.mutex);
        std::vector<IAMShmBlockHandle> blocks;
        while (IAMShmHandleMalloc(&pool, 1, &block) == 0) {
            blocks.push_back(block);
        }
        for (auto& each : blocks) {
            EXPECT_EQ(0, IAMShmFree(&pool, &each));
        }
        return blocks.size();
    }

    const std::string name;
    IAMShmPoolHandle pool{};
    IAMShmBlockHandle block{};
};

// The record, or "!" and the name of the error.
inline std::string ReadFrom(int fd, size_t length = 3960)
{
    std::string buffer(4096, '\0');
    const int64_t size = IAMFastRead(fd, buffer.data(), length);
    return size < 0 ? std::string("!") + strerrorname_np(errno) : buffer.substr(0, static_cast<size_t>(size));
}

struct Reader {
    explicit Reader(const char* name = NAME, int flags = O_RDWR)
    {
        Open(name, flags);
    }
    ~Reader()
    {
        Close();
    }

    // In bounded time.
    bool Open(const char* name = NAME, int flags = O_RDWR)
    {
        Close();
        const auto begin = Clock::now();
        fd = OpenResource(name, flags);
        error = fd >= 0 ? 0 : errno;
        EXPECT_LT(Clock::now() - begin, OPEN_BOUND);
        return fd >= 0;
    }
    void Close()
    {
        CloseResource(std::exchange(fd, -1));
    }
    std::string Read(size_t length = 3960) const
    {
        return ReadFrom(fd, length);
    }
    void ExpectNumbered(size_t count, size_t size) const
    {
        for (size_t i = 0; i < count; ++i) {
            ASSERT_EQ(Numbered(i, size), Read());
        }
    }

    int fd = -1;
    int error = 0;  // why it could not be opened
};

// What is published now is what this reader reads next.
inline void ExpectDelivery(Publisher& publisher, const Reader& reader)
{
    static size_t number = 0;
    const std::string record = Numbered(++number, 20);
    EXPECT_EQ(0, publisher.Publish(record));
    EXPECT_EQ(record, reader.Read());
}

inline auto OpenDescriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// Every test has a runtime directory of its own and leaves no descriptor and no file behind.
class IamTest : public testing::Test {
protected:
    IamTest()
    {
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

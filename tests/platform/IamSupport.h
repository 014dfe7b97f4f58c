// What the tests of an IAM stand on: a publisher as the library's publishing half is one, and readers.
#ifndef REPORT_EVENT_TESTS_PLATFORM_IAM_SUPPORT_H
#define REPORT_EVENT_TESTS_PLATFORM_IAM_SUPPORT_H

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <optional>

#include "iam.h"
#include "tests/platform/Support.h"

namespace platform_test {

constexpr uint32_t POOL_BLOCKS = 1000;  // the library's own pool
constexpr uint32_t POOL_BYTES = 4055040;

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
    std::function<void(IAMRTFSMgrFile*)> whenClosed;
    std::atomic<size_t> opened{0};
    std::atomic<size_t> closed{0};
    std::atomic<size_t> misled{0};  // notifications to where a record points that is no longer valid
};
inline std::optional<Receiver> receiver;  // of the newest publisher

inline int OnOpen(IAMRTFSMgrFile* file)
{
    {
        const std::lock_guard<std::mutex> lock(receiver->mutex);
        receiver->current = file;
        receiver->opens.push_back(file->dataHandle);
        ++receiver->opened;
    }
    if (receiver->whenOpened) {
        receiver->whenOpened();
    }
    return 0;
}

inline int OnClose(IAMRTFSMgrFile* file)
{
    if (receiver->whenClosed) {
        receiver->whenClosed(file);
    }
    const std::lock_guard<std::mutex> lock(receiver->mutex);
    if (receiver->current == file) {
        receiver->current = nullptr;
    }
    receiver->closes.push_back(file->dataHandle);  // the object still lives
    ++receiver->closed;
    return 0;
}

inline int OnMisled(IAMRTFSMgrFile* /*file*/)
{
    return static_cast<int>(++receiver->misled);
}

struct Publisher {
    // Serves and has a pool, unless that is the test's affair.
    explicit Publisher(uint32_t blocks = 0, const std::string& name = options.resource) : name(name)
    {
        receiver.emplace();
        if (blocks != 0) {
            EXPECT_EQ(0, Serve());
            EXPECT_EQ(0, MakePool(blocks));
        }
    }
    ~Publisher()
    {
        IAMShmDestroyPool(&pool);
    }

    // The records stay valid for the call only, as the library's do; then they lead elsewhere.
    int Serve(IAMFileNotification open = OnOpen, IAMFileNotification close = OnClose) const
    {
        static char copy[256];
        static IAMFileOperations operations;
        copy[name.copy(copy, sizeof(copy) - 1)] = '\0';
        operations = {nullptr, nullptr, open, close, nullptr};
        IAMRTServiceRecord record{copy, &operations, {500, 0, 10, 1}};
        const int result = IAMRegisterRTService(&record);
        operations = {nullptr, nullptr, OnMisled, OnMisled, nullptr};
        std::memset(copy, 'x', sizeof(copy) - 1);
        return result;
    }
    int MakePool(uint32_t blocks = POOL_BLOCKS, uint32_t blockSize = 4032)
    {
        IAMShmPoolConfig config{name.c_str(), blocks == POOL_BLOCKS ? POOL_BYTES : blocks * blockSize, blocks};
        return IAMShmRegisterPoolWithConfig(&config, &pool);
    }
    // 0, or the result of the call that failed; 1 when no reader is there.
    int Publish(const std::string& record)
    {
        const std::lock_guard<std::mutex> lock(receiver->mutex);
        if (receiver->current == nullptr) {
            return 1;
        }
        const auto size = static_cast<uint32_t>(record.size());
        int result = IAMShmHandleMalloc(&pool, size, &block);
        if (result != 0) {
            return result;
        }
        IAMDataPackage package{&pool, &block, 1};
        result = IAMShmWrite(&block, record.data(), size, 0);
        result = result != 0 ? result : IAMRTDataEnqueue(receiver->current->dataHandle, &package);
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
        const std::lock_guard<std::mutex> lock(receiver->mutex);
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
    explicit Reader(const char* name = options.resource.c_str(), int flags = O_RDWR)
    {
        Open(name, flags);
    }
    ~Reader()
    {
        Close();
    }

    // In bounded time.
    bool Open(const char* name = options.resource.c_str(), int flags = O_RDWR)
    {
        Close();
        const auto begin = Clock::now();
        do {
            fd = open(name, flags);
            error = fd >= 0 ? 0 : errno;
        } while (error == ETIMEDOUT && Clock::now() - begin < openBound - std::chrono::seconds(1));  // a busy machine
        EXPECT_LT(Clock::now() - begin, openBound);
        return fd >= 0;
    }
    void Close()
    {
        if (fd >= 0) {
            close(std::exchange(fd, -1));
        }
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

    inline static Clock::duration openBound = std::chrono::seconds(30);
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

}  // namespace platform_test

#endif  // REPORT_EVENT_TESTS_PLATFORM_IAM_SUPPORT_H

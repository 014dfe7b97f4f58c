// The calls of the recording platform: the four platform libraries, the POSIX and C++ runtime calls that the linker
// redirects here (--wrap), and the heap. Outside a test, and for what is not the library's, a wrapped call is the real
// one.
#include "tests/fakes/RecordingPlatform.h"

#include <malloc.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <syslog.h>

#include <cstdarg>
#include <system_error>

#include "c_sec.h"
#include "slog.h"

namespace recording {

// A read thread of the library: what it has named itself. Its end is in the journal.
struct ReadThread {
    std::string name;

    ~ReadThread()
    {
        if (!name.empty()) {
            LibraryTest::running->Record("end", "end");
        }
    }
};
static thread_local ReadThread readThread;

// Waits until a read of the file is scripted or the descriptor closed.
Script LibraryTest::AwaitRead(int fd)
{
    std::unique_lock<std::mutex> lock(mutex);
    const auto found = descriptors.find(fd);
    if (found == descriptors.end()) {
        return Failure(EBADF);
    }
    const std::shared_ptr<OpenFile> file = found->second;
    EXPECT_EQ(readThread.name, "Rd_" + file->name) << "reads what is not its file";
    std::deque<Script>& queue = scripts[file->name];
    changed.wait(lock, [&] { return file->closed || !queue.empty(); });
    if (file->closed) {
        return Failure(EBADF);
    }
    const Script read = queue.front();
    queue.pop_front();
    return read;
}

namespace {

// A call from the library: off the stage until it returns, and errno changed by then, as real libraries may.
struct Call {
    LibraryTest& platform = *LibraryTest::running;
    int error = 4242;
    Offstage offstage;

    ~Call()
    {
        errno = error;
    }

    // Every message names the one source file and its line; the journal keeps the text alone.
    void Message(const std::string& operation, const std::string& lead, const std::string& text)
    {
        EXPECT_EQ(0u, text.rfind("[ReportEventServerImpl.cpp:", 0)) << text;
        Done(operation, lead, text.substr(text.find(']') + 1));
    }

    // The ordinary way: one line of the journal, the scripted result or 0.
    template <typename... Parts>
    int Done(const std::string& operation, const Parts&... parts)
    {
        platform.Record(operation, Text(parts...));
        return static_cast<int>(platform.Scripted(operation).value_or(0));
    }
};

const char* Name(const void* object)
{
    if (object == &Client::dataPakg_) {
        return "package";
    }
    if (object == &Client::poolHandle_) {
        return "pool";
    }
    return object == &Client::blockHdl_ ? "block" : "other";
}

bool Recording()
{
    return stage == LIBRARY && LibraryTest::running != nullptr;
}

// The text of a printf-like call.
#define FORMAT(text, format)                                                                       \
    std::string text(2048, '\0');                                                                  \
    va_list arguments;                                                                             \
    va_start(arguments, format);                                                                   \
    text.resize(static_cast<size_t>(std::vsnprintf(text.data(), text.size(), format, arguments))); \
    va_end(arguments)

bool AllZero(const void* memory, size_t size)
{
    const auto bytes = static_cast<const char*>(memory);
    return std::string(bytes, size) == std::string(size, '\0');
}

// Whether the allocation that is about to happen is to fail.
bool Fails()
{
    if (stage != LIBRARY || heap.failing == 0 || --heap.failing != 0) {
        return false;
    }
    errno = ENOMEM;
    return true;
}

}  // namespace
}  // namespace recording

using namespace recording;

// The other forms lead here.
void* operator new(size_t size)
{
    if (Fails()) {
        throw std::bad_alloc();
    }
    heap.allocations += stage == LIBRARY ? 1 : 0;
    heap.live += stage == PLATFORM ? 0 : 1;
    return std::malloc(size);
}

// But for this one under the address sanitizer.
void* operator new[](size_t size, const std::nothrow_t&) noexcept
{
    return Fails() ? nullptr : operator new[](size);
}

// Overwrites what is released: whoever still uses it shall notice. A memset before free is left out by compilers.
void operator delete(void* memory) noexcept
{
    if (memory != nullptr) {
        heap.live -= stage == PLATFORM ? 0 : 1;
        explicit_bzero(memory, malloc_usable_size(memory));
        std::free(memory);
    }
}

void operator delete(void* memory, size_t) noexcept
{
    operator delete(memory);
}

extern "C" {

// A wrapped call: the real one for what is not the library's.
#define WRAP(type, name, parameters, arguments)                                   \
    type __real_##name parameters;                                                \
    static type Recorded_##name parameters;                                       \
    type __wrap_##name parameters                                                 \
    {                                                                             \
        return Recording() ? Recorded_##name arguments : __real_##name arguments; \
    }                                                                             \
    type Recorded_##name parameters

// The tests raise SIGPIPE themselves, where no lock is held and the heap is at rest: the handler may be recorded.
const char* __tsan_default_options()
{
    return "report_signal_unsafe=0";
}

WRAP(int, open, (const char* name, int flags, [[maybe_unused]] int mode), (name, flags, mode))
{
    Call call;
    int number = static_cast<int>(call.platform.Scripted(Text("open ", name)).value_or(call.platform.firstNumber));
    if (number >= 0) {
        const Locked locked(call.platform.mutex);
        while (call.platform.descriptors.count(number) != 0) {
            ++number;
        }
        call.platform.descriptors[number] = std::make_shared<OpenFile>(OpenFile{name});
    }
    call.platform.Record("open", Text("open(", name, ", ", flags, ") = ", number));
    return number;
}

WRAP(int, close, (int fd), (fd))
{
    Call call;
    call.platform.Scripted("close");
    {
        const Locked locked(call.platform.mutex);
        const auto found = call.platform.descriptors.find(fd);
        if (found == call.platform.descriptors.end()) {
            EXPECT_TRUE(fd >= 0 && fd < FIRST_NUMBER) << "closed a descriptor that is not the library's: " << fd;
            return __real_close(fd);
        }
        found->second->closed = true;
        call.platform.descriptors.erase(found);
    }
    call.platform.Record("close", Text("close(", fd, ")"));
    return 0;
}

// The thread's real name is set and read, unless a script says that the call fails.
WRAP(int, prctl, (int option, void* argument), (option, argument))
{
    Call call;
    if (option == PR_SET_NAME) {
        readThread.name = static_cast<char*>(argument);
    }
    const std::string line = option == PR_SET_NAME ? "name " + readThread.name : Text("prctl ", option);
    return call.Done("prctl", line) != 0 ? -1 : __real_prctl(option, argument);
}

// Time passes in sleeps only. A scripted result is an interruption after half of the time.
WRAP(int, nanosleep, (const timespec* time, timespec* rest), (time, rest))
{
    Call call;
    const int64_t wanted = time->tv_sec * 1'000'000'000 + time->tv_nsec;
    if (call.Done("sleep", "sleep ", wanted / 1000, " us") == 0) {
        call.platform.nanoseconds += wanted;
        return 0;
    }
    call.platform.nanoseconds += wanted / 2;
    *rest = {0, static_cast<long>(wanted / 2)};
    call.error = EINTR;
    return -1;
}

WRAP(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
{
    Call call;
    call.Done("lock", "lock ", call.platform.Number(mutex));
    return __real_pthread_mutex_lock(mutex);
}

WRAP(int, pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))
{
    Call().Done("unlock", "unlock");
    return __real_pthread_mutex_unlock(mutex);
}

void __wrap_syslog(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
void __wrap_syslog(int priority, const char* format, ...)
{
    Call call;
    FORMAT(text, format);
    call.Done("syslog", "syslog ", priority, " ", text);
}

// std::chrono::steady_clock::now: a time point is returned like its count of nanoseconds.
WRAP(int64_t, _ZNSt6chrono3_V212steady_clock3nowEv, (), ())
{
    return LibraryTest::running->nanoseconds;
}

// std::thread::join
WRAP(void, _ZNSt6thread4joinEv, (std::thread * thread), (thread))
{
    Call().Done("join", "join");
    __real__ZNSt6thread4joinEv(thread);
}

// The start of a std::thread. A scripted result is one that cannot be started; "thread started" runs before the library
// hears of it.
WRAP(void, _ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE,
     (std::thread * thread, std::thread::_State_ptr body, void (*depend)()), (thread, std::move(body), depend))
{
    Call call;
    if (call.Done("thread", "thread") != 0) {
        throw std::system_error(EAGAIN, std::system_category());
    }
    __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
        thread, std::move(body), depend);
    call.platform.Scripted("thread started");
}

int CheckLogLevel(int module, int level)
{
    Call call;
    EXPECT_EQ(54, module);
    call.platform.Record("check", Text("check ", level));
    return static_cast<int>(call.platform.Scripted("check").value_or(1));
}

void DlogInner(int module, int level, const char* format, ...)
{
    Call call;
    FORMAT(text, format);
    EXPECT_EQ(54, module);
    call.Message("log", Text("log ", level, " "), text);
}

void DlogEventInner(int module, const char* format, ...)
{
    Call call;
    FORMAT(text, format);
    EXPECT_EQ(0x1000036, module);
    call.Message("event", "event ", text);
}

void DlogFlush(void)
{
    Call().Done("flush", "flush");
}

int64_t IAMFastRead(int fd, void* buffer, size_t length)
{
    Call call;
    EXPECT_EQ(3960u, length);
    EXPECT_TRUE(AllZero(buffer, 3960));
    call.platform.Record("read", Text("read(", fd, ")"));
    const Script read = call.platform.AwaitRead(fd);
    errno = read.error;
    if (read.hook) {
        read.hook();
    }
    call.error = errno;
    std::copy(read.record.begin(), read.record.end(), static_cast<unsigned char*>(buffer));
    return read.result.value();
}

int FTEDeSerialize(const unsigned char* data, unsigned int length, FTEInfo* info, UDSInfo* uds)
{
    Call call;
    EXPECT_TRUE(AllZero(info, sizeof(*info)) && AllZero(uds, sizeof(*uds))) << "padding included";
    call.Done("fte", "FTEDeSerialize(", std::string(data, data + length), ")");
    const Offstage handedOver(HANDED_OVER);
    return call.platform.deserialize ? call.platform.deserialize(data, length, info, uds) : -1;
}

int FTERegisterCallback(const std::function<int(const unsigned char*, unsigned int)>& callback)
{
    Call call;
    call.platform.faultCallback = callback;
    return call.Done("fte", "FTERegisterCallback");
}

int FTEUnregisterCallback(void)
{
    return Call().Done("fte", "FTEUnregisterCallback");
}

int MidFTEReport(FTEReportInfo* report)
{
    Call call;
    call.platform.faultReport = *report;
    return call.Done("fte", "MidFTEReport");
}

int memcpy_s(void* dest, size_t destMax, const void* src, size_t count)
{
    std::memcpy(dest, src, std::min(destMax, count));
    return Call().Done("memcpy_s", "memcpy_s(", destMax, ", ", count, ")");
}

int memset_s(void* dest, size_t destMax, int value, size_t count)
{
    std::memset(dest, value, std::min(destMax, count));
    return Call().Done("memset_s", "memset_s(", destMax, ", ", value, ", ", count, ")");
}

int strncpy_s(char* dest, size_t destMax, const char* src, size_t count)
{
    std::snprintf(dest, destMax, "%.*s", static_cast<int>(count), src);
    return Call().Done("strncpy_s", "strncpy_s(", destMax, ", ", src, ", ", count, ")");
}

int IAMRegisterRTService(IAMRTServiceRecord* record)
{
    const IAMFileOperations expected = {nullptr, nullptr, &Client::MyOpen, &Client::MyClose, nullptr};
    EXPECT_EQ(0, std::memcmp(&expected, record->operations, sizeof(expected)));
    const auto& [first, second, third, fourth] = record->settings;
    return Call().Done("iam", "IAMRegisterRTService(", record->serviceName, ", ", first, " ", second, " ", third, " ",
                       fourth, ")");
}

int IAMShmRegisterPoolWithConfig(IAMShmPoolConfig* config, IAMShmPoolHandle* pool)
{
    return Call().Done("iam", "IAMShmRegisterPoolWithConfig(", config->fileName, ", ", config->size, ", ",
                       config->blockCount, ", ", Name(pool), ")");
}

int IAMShmHandleMalloc(IAMShmPoolHandle* pool, uint32_t size, IAMShmBlockHandle* block)
{
    return Call().Done("iam", "malloc(", Name(pool), ", ", size, ", ", Name(block), ")");
}

int IAMShmWrite(IAMShmBlockHandle* block, const char* data, uint32_t size, uint32_t offset)
{
    return Call().Done("iam", "write(", Name(block), ", ", std::string(data, size), ", ", offset, ")");
}

int IAMRTDataEnqueue(uint64_t dataHandle, IAMDataPackage* package)
{
    return Call().Done("iam", "enqueue(", dataHandle, ", ", Name(package), " of ", Name(package->pool), ", ",
                       Name(package->block), ", ", package->count, ")");
}

int IAMShmFree(IAMShmPoolHandle* pool, IAMShmBlockHandle* block)
{
    return Call().Done("iam", "free(", Name(pool), ", ", Name(block), ")");
}

int IAMShmDestroyPool(IAMShmPoolHandle* pool)
{
    return Call().Done("iam", "destroy(", Name(pool), ")");
}

}  // extern "C"

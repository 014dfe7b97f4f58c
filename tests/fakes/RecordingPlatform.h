// A platform for tests: it keeps one ordered journal of every platform and POSIX call that the library makes, lets a
// test script what each call does, and watches the rules that hold for every scenario: who closes which descriptor, and
// who reads it.
//
// A test never sleeps: it waits for a line of the journal, for a thread that blocks in a read, or at a Gate.
#ifndef REPORT_EVENT_TESTS_FAKES_RECORDING_PLATFORM_H
#define REPORT_EVENT_TESTS_FAKES_RECORDING_PLATFORM_H

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>

#include "fte.h"
#include "publisher/ReportEventClientImpl.h"
#include "report_event/ResourceNames.h"
#include "report_event/ResultCodes.h"
#include "subscriber/ReportEventServerImpl.h"

// The classes with what they keep to themselves.
namespace ReportEvent {
struct ServerTestAccess : ReportEventServerImpl {
    using ReportEventServerImpl::faultEvtRunning_;
    using ReportEventServerImpl::faultEvtSrcMap_;
    using ReportEventServerImpl::idsEventReportCb;
    using ReportEventServerImpl::reportEventCb;
    using ReportEventServerImpl::reportEventMidCb;
    using ReportEventServerImpl::secEvtRunning_;
    using ReportEventServerImpl::secEvtSrcMap_;
};
}  // namespace ReportEvent

namespace ProcMgr {
struct ClientTestAccess : ReportEventClientImpl {
    using ReportEventClientImpl::blockHdl_;
    using ReportEventClientImpl::dataPakg_;
    using ReportEventClientImpl::iamRtfsFile_;
    using ReportEventClientImpl::poolHandle_;
    using ReportEventClientImpl::ServerStatus;
    using ReportEventClientImpl::serverStatus_;
};
}  // namespace ProcMgr

namespace recording {

using namespace ReportEvent;
using Server = ServerTestAccess;
using Client = ProcMgr::ClientTestAccess;
using Names = std::vector<std::string>;
using Bytes = std::vector<unsigned char>;
using Hook = std::function<void()>;

// Joins the parts into one text.
template <typename... Parts>
std::string Text(const Parts&... parts)
{
    std::ostringstream text;
    (text << ... << parts);
    return text.str();
}

// On whose behalf a thread allocates, locks and starts threads. Only the library's doings are counted and kept;
// HANDED_OVER is memory that the platform allocates and the library releases.
enum Stage { LIBRARY, PLATFORM, HANDED_OVER };
inline thread_local Stage stage = LIBRARY;

class Offstage {
public:
    explicit Offstage(Stage as = PLATFORM) : saved_(std::exchange(stage, as))
    {
    }
    ~Offstage()
    {
        stage = saved_;
    }
    Offstage(const Offstage&) = delete;

private:
    const Stage saved_;
};

// Heap use of the calling thread. A test may let the failing-th allocation from now on fail.
struct HeapUse {
    int64_t allocations = 0;
    int64_t live = 0;
    int64_t failing = 0;
};
inline thread_local HeapUse heap;

inline thread_local std::string threadName;            // what a read thread has named itself; empty for any other
inline thread_local const void* wantedLock = nullptr;  // the lock that this thread takes

// A lock of the platform's own.
struct Locked : Offstage, std::lock_guard<std::mutex> {
    using std::lock_guard<std::mutex>::lock_guard;
};

// A thread of the test's own, joined at the latest by its destructor.
class Background {
public:
    explicit Background(Hook body)
    {
        const Offstage offstage;
        thread_ = std::thread(std::move(body));
    }
    ~Background()
    {
        Join();
    }
    void Join()
    {
        const Offstage offstage;
        if (thread_.joinable()) {
            thread_.join();
        }
    }

private:
    std::thread thread_;
};

constexpr int FIRST_NUMBER = 1000;                // of the simulated descriptors
const std::string FOREIGN = "the process's own";  // file

// One for each test. What every test of the library's objects starts from: it watches the rules, and a test finds here
// what it says and sees.
class Platform {
public:
    // What a call does, also the read of the file of that name.
    struct Script {
        Hook hook;                      // runs on the calling thread with no lock held; may block, raise, call in
        std::optional<int64_t> result;  // nothing: the operation's ordinary one
        Bytes record;                   // these two of a read only
        int error = 0;
    };
    struct OpenFile {
        std::string name;
        bool closed = false;
    };

    // The rules that hold at the end of every test.
    ~Platform()
    {
        ofThisTest = nullptr;
        EXPECT_EQ(0, threads) << "read threads were left running";
        for (const auto& [number, file] : descriptors) {
            EXPECT_EQ(FOREIGN, file->name) << "descriptor " << number << " was never closed";
        }
    }

    // That of the running test; outside of one the library's own instances call from the exit handlers.
    static Platform& Get()
    {
        const Offstage offstage;
        static Platform& outside = *new Platform;
        return ofThisTest != nullptr ? *ofThisTest : outside;
    }

    // ---- The journal

    void Record(const std::string& operation, const std::string& text)
    {
        const Locked locked(mutex);
        lines.emplace_back(operation, text);
    }

    // The lines since the last look: those of the listed operations ("open close log"), or all, one after the other.
    std::string Journal(const std::string& listed = "")
    {
        const Locked locked(mutex);
        std::string text;
        for (const auto& [operation, line] : std::exchange(lines, {})) {
            const bool isListed = (" " + listed + " ").find(" " + operation + " ") != std::string::npos;
            if (listed.empty() || isListed) {
                text += (text.empty() ? "" : " | ") + line;
            }
        }
        return text;
    }

    // How many of the lines since the last look hold the text.
    size_t Count(const std::string& part)
    {
        const Locked locked(mutex);
        const auto holds = [&](const auto& line) { return line.second.find(part) != std::string::npos; };
        return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), holds));
    }

    // ---- Waiting

    // On the system clock: the steady one is the library's.
    void AwaitCondition(const std::string& what, const std::function<bool()>& condition)
    {
        using Clock = std::chrono::system_clock;
        const Offstage offstage;
        const auto deadline = Clock::now() + std::chrono::seconds(testing::Test::HasFailure() ? 1 : 20);
        while (!condition()) {
            if (Clock::now() > deadline) {
                ADD_FAILURE() << "waited in vain for " << what << " after " << Journal();
                return;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }

    void Await(const std::string& part, size_t count = 1)
    {
        AwaitCondition(part, [&] { return Count(part) >= count; });
    }

    // A read of the file waits and nothing is queued for it.
    void AwaitBlocked(const std::string& name)
    {
        AwaitCondition("a blocked read", [&] {
            const Locked locked(mutex);
            return blocked.count(name) != 0 && scripts[name].empty();
        });
    }

    // This many read threads are left.
    void AwaitThreads(int count = 0)
    {
        AwaitCondition("the end of threads", [&] { return threads == count; });
    }

    // ---- Scripts

    // Scripts the next call of an operation or read of a file.
    void Next(const std::string& operation, Hook hook = nullptr, std::optional<int64_t> result = std::nullopt,
              const Bytes& record = {}, int error = 0)
    {
        const Locked locked(mutex);
        scripts[operation].push_back({std::move(hook), result, record, error});
        readable.notify_all();
    }

    void Results(const std::string& operation, const std::vector<int64_t>& results)
    {
        for (const int64_t result : results) {
            Next(operation, nullptr, result);
        }
    }

    void Deliver(const std::string& name, const Bytes& record, Hook hook = nullptr)
    {
        Next(name, std::move(hook), record.size(), record);
    }

    void Fail(const std::string& name, int error, Hook hook = nullptr, int64_t result = -1)
    {
        Next(name, std::move(hook), result, {}, error);
    }

    // Scripts every call of an operation from now on that has no script of its own.
    void Always(const std::string& operation, Hook hook, std::optional<int64_t> result = std::nullopt)
    {
        const Locked locked(mutex);
        always[operation] = {std::move(hook), result, {}, 0};
    }

    // Plays what is scripted for a call of the operation.
    std::optional<int64_t> Scripted(const std::string& operation)
    {
        Script script;
        {
            const Locked locked(mutex);
            std::deque<Script>& queue = scripts[operation];
            script = queue.empty() ? always[operation] : queue.front();
            if (!queue.empty()) {
                queue.pop_front();
            }
        }
        if (script.hook) {
            script.hook();
        }
        return script.result;
    }

    // ---- Files

    // Opens of the file fail, or succeed again.
    void SetAbsent(const std::string& name, bool isAbsent = true)
    {
        const Locked locked(mutex);
        absent[name] = isAbsent;
    }

    // Opens a file: for the library, or FOREIGN for the process itself.
    int TakeNumber(const std::string& name)
    {
        const Locked locked(mutex);
        int number = absent[name] ? -1 : firstNumber.load();
        while (descriptors.count(number) != 0) {
            ++number;
        }
        if (number >= 0) {
            descriptors[number] = std::make_shared<OpenFile>(OpenFile{name});
        }
        return number;
    }

    bool Close(int fd);
    int64_t ReadRecord(int fd, unsigned char* buffer, int& error);

    static inline Platform* ofThisTest = nullptr;
    std::mutex mutex;
    std::condition_variable readable;                        // for reads; no signal handler notifies it
    std::vector<std::pair<std::string, std::string>> lines;  // operation and text
    std::map<std::string, std::deque<Script>> scripts;
    std::map<std::string, Script> always;
    std::map<std::string, bool> absent;
    std::map<int, std::shared_ptr<OpenFile>> descriptors;
    std::map<std::string, pthread_t> blocked;    // in a read of that file
    std::atomic<int> firstNumber{FIRST_NUMBER};  // descriptors are the lowest free ones from here on, at once reused
    std::atomic<int> threads{0};                 // read threads alive
    std::atomic<int64_t> nanoseconds{0};

    // What was handed over last, kept beyond the call.
    FTEReportInfo faultReport = {};
    std::function<int(const unsigned char*, unsigned int)> faultCallback;
    // The decoder, which the test supplies.
    std::function<int(const unsigned char*, unsigned int, FTEInfo*, UDSInfo*)> deserialize;
};

// Holds a thread until the test opens it.
class Gate {
public:
    void Hold()
    {
        arrived_ = true;
        Platform::Get().AwaitCondition("a gate", [&] { return open_.load(); });
    }
    void AwaitArrival()
    {
        Platform::Get().AwaitCondition("an arrival at a gate", [&] { return arrived_.load(); });
    }
    void Open()
    {
        open_ = true;
    }

private:
    std::atomic<bool> arrived_{false};
    std::atomic<bool> open_{false};
};

const std::string PM = PM_FAULT_RESOURCE;
const std::string SEA = SEA_PM_FAULT_RESOURCE;
const std::string SEC = SECURITY_RESOURCE;
const std::string ONE = "a:/res/one";
const std::string TWO = "b:/res/two";

// A raw record whose event bears `name`; by default the event log stays silent about it.
inline Bytes Raw(unsigned char header, const std::string& name, unsigned char forceLog = 0, unsigned char assertion = 1)
{
    Bytes record(362, 0);
    record[0] = header;
    record[1] = forceLog;
    record[2 + 19] = assertion;
    std::copy(name.begin(), name.end(), record.begin() + 2 + 40);
    return record;
}

// The lines that the subscriber's journal is made of.
inline std::string Opened(const std::string& name, int fd = FIRST_NUMBER)
{
    return Text("open(", name, ", 2) = ", fd, " | log 2 Open file success. resFile=", name, ", fd=", fd);
}

inline std::string Reconnected(const std::string& name, int fd)
{
    return Text("log 16 Reconnect success. (file=", name, ",fd=", fd, ")");
}

// A reconnection and its thread end.
inline std::string GaveUp(const std::string& name, int error)
{
    return Text(" | log 16 Reconnect failed. (file=", name, ",fd=-1) | log 3 Reconnect ", name,
                " failed, ret=-1 errno=", error);
}

// The join of a read thread, which writes `meanwhile` before it ends.
inline std::string Joined(const std::string& name, const std::string& by, const std::string& meanwhile = "")
{
    return Text("join", meanwhile, " | log 16 ", by, ": join thead of resfile=", name, " success");
}

// One subscriber on a fresh platform, with callbacks that write what they get into the journal.
class LibraryTest : public testing::Test, public Platform {
protected:
    LibraryTest()
    {
        ofThisTest = this;
        server_->reportEventMidCb = Teller("device");
        server_->idsEventReportCb = Teller("security");
    }

    // Runs `body` in a process of its own, which then exits, and expects its journal of that.
    void ExpectAtExit(const std::string& journal, const Hook& body)
    {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        const auto run = [&] {
            std::atexit([] { std::fprintf(stderr, "%s", Get().Journal().c_str()); });
            body();
            if (testing::Test::HasFailure()) {
                std::_Exit(1);
            }
            std::exit(0);
        };
        EXPECT_EXIT(run(), testing::ExitedWithCode(0), testing::Eq(journal));
    }

    // A callback that writes "<who> <event name>" into the journal.
    std::function<void(const dsmi_event&)> Teller(const std::string& who)
    {
        return [this, who](const dsmi_event& event) {
            const Offstage offstage;
            Record("deliver", who + " " + event.eventName);
        };
    }

    std::unique_ptr<Server> server_ = std::make_unique<Server>();
};

}  // namespace recording

#endif  // REPORT_EVENT_TESTS_FAKES_RECORDING_PLATFORM_H

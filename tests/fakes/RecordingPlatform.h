// A platform for tests: it keeps one ordered journal of every platform and POSIX call that the library makes, its locks
// among them, lets a test script what each call does, and watches the rules that hold for every scenario: who closes
// which descriptor, and who reads it.
//
// A test never sleeps: it waits for a line of the journal, or for a thread that it holds in a call.
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

struct Offstage {
    const Stage saved;

    explicit Offstage(Stage as = PLATFORM) : saved(std::exchange(stage, as))
    {
    }
    ~Offstage()
    {
        stage = saved;
    }
};

// A lock of the platform's own.
struct Locked : Offstage, std::lock_guard<std::mutex> {
    using std::lock_guard<std::mutex>::lock_guard;
};

// Heap use of the calling thread. A test may let the failing-th allocation from now on fail.
struct HeapUse {
    int64_t allocations = 0;
    int64_t live = 0;
    int64_t failing = 0;
};
inline thread_local HeapUse heap;

// What a call does, also the read of the file of that name.
struct Script {
    Hook hook = nullptr;                           // runs on the calling thread with no lock held; may block, raise
    std::optional<int64_t> result = std::nullopt;  // nothing: the operation's ordinary one
    Bytes record = {};                             // these two of a read only
    int error = 0;
};

inline Script Success(const Bytes& record)
{
    return {nullptr, record.size(), record, 0};
}

inline Script Failure(int error, Hook hook = nullptr)
{
    return {std::move(hook), -7, {}, error};
}

constexpr int FIRST_NUMBER = 1000;  // of the simulated descriptors

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
                " failed, ret=-7 errno=", error);
}

// The join of a read thread, which writes `meanwhile` before it ends.
inline std::string Joined(const std::string& name, const std::string& by, const std::string& meanwhile = "")
{
    return Text("join", meanwhile, " | log 16 ", by, ": join thead of resfile=", name, " success");
}

struct OpenFile {
    std::string name;
    bool closed = false;
};

// What every test of the library's objects starts from: one subscriber on a fresh platform, with callbacks that write
// what they get into the journal. A test finds here what it says and sees.
class LibraryTest : public testing::Test {
public:
    LibraryTest()
    {
        running = this;
        server_->reportEventMidCb = Teller("device ");
        server_->idsEventReportCb = Teller("security ");
    }
    ~LibraryTest() override
    {
        server_.reset();
        running = nullptr;
        EXPECT_EQ(0u, descriptors.size()) << "never closed: " << testing::PrintToString(descriptors);
    }

    // Runs `body` in a process of its own, which then exits, and expects its journal of that.
    void ExpectAtExit(const std::string& journal, const Hook& body)
    {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        const auto run = [&] {
            std::atexit([] { std::fprintf(stderr, "%s", running->Journal().c_str()); });
            body();
            std::exit(HasFailure() ? 1 : 0);
        };
        EXPECT_EXIT(run(), testing::ExitedWithCode(0), testing::Eq(journal));
    }

    // A callback that writes "<who><event name>" into the journal. Small enough for std::function not to allocate.
    std::function<void(const dsmi_event&)> Teller(const char* who)
    {
        return [this, who](const dsmi_event& event) {
            const Offstage offstage;
            Scripted("deliver");
            Record("deliver", Text(who, event.eventName));
        };
    }

    // ---- The journal

    void Record(const std::string& operation, const std::string& text)
    {
        const Locked locked(mutex);
        lines.emplace_back(operation, text);
        changed.notify_all();
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

    // ---- Waiting

    // Until this many of the lines since the last look hold the text.
    void Await(const std::string& part, int count = 1)
    {
        const Offstage offstage;
        std::unique_lock<std::mutex> lock(mutex);
        const auto holds = [&](const auto& line) { return line.second.find(part) != std::string::npos; };
        const auto isWritten = [&] { return std::count_if(lines.begin(), lines.end(), holds) >= count; };
        EXPECT_TRUE(changed.wait_for(lock, std::chrono::seconds(HasFailure() ? 1 : 20), isWritten))
            << "waited in vain for " << part << " after " << testing::PrintToString(lines);
    }

    // The thread that makes the next call of the operation is held there until the line "released" is written.
    void Hold(const std::string& operation, Script script = {})
    {
        script.hook = [this] {
            Record("hold", "held");
            Await("released");
        };
        Next(operation, script);
    }

    // ---- Scripts

    // Scripts the next calls of an operation or reads of a file.
    void Next(const std::string& operation, const Script& script, size_t times = 1)
    {
        const Locked locked(mutex);
        std::deque<Script>& queue = scripts[operation];
        queue.insert(queue.end(), times, script);
        changed.notify_all();
    }

    void Results(const std::string& operation, const std::vector<int64_t>& results)
    {
        for (const int64_t result : results) {
            Next(operation, {nullptr, result});
        }
    }

    // Plays what is scripted for a call of the operation.
    std::optional<int64_t> Scripted(const std::string& operation)
    {
        Script script;
        {
            const Locked locked(mutex);
            std::deque<Script>& queue = scripts[operation];
            if (!queue.empty()) {
                script = queue.front();
                queue.pop_front();
            }
        }
        if (script.hook) {
            script.hook();
        }
        return script.result;
    }

    // ---- Files and locks

    // Locks are numbered in the order in which the library first takes them.
    size_t Number(const void* lock)
    {
        const Locked locked(mutex);
        return locks.emplace(lock, locks.size() + 1).first->second;
    }

    Script AwaitRead(int fd);

    static inline LibraryTest* running = nullptr;
    std::mutex mutex;
    std::condition_variable changed;                         // a line, a script, a file
    std::vector<std::pair<std::string, std::string>> lines;  // operation and text
    std::map<std::string, std::deque<Script>> scripts;
    std::map<int, std::shared_ptr<OpenFile>> descriptors;
    std::map<const void*, size_t> locks;
    std::atomic<int> firstNumber{FIRST_NUMBER};  // descriptors are the lowest free ones from here on, at once reused
    std::atomic<int64_t> nanoseconds{0};

    // What was handed over last, kept beyond the call.
    FTEReportInfo faultReport = {};
    std::function<int(const unsigned char*, unsigned int)> faultCallback;
    // The decoder, which the test supplies.
    std::function<int(const unsigned char*, unsigned int, FTEInfo*, UDSInfo*)> deserialize;

    std::unique_ptr<Server> server_ = std::make_unique<Server>();
};

}  // namespace recording

#endif  // REPORT_EVENT_TESTS_FAKES_RECORDING_PLATFORM_H

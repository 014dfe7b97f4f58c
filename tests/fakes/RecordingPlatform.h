// A platform for tests: it keeps one ordered journal of every platform and POSIX call that the library makes, lets a
// test script what each call does, and watches the rules that hold for every scenario: who closes which descriptor, who
// reads it, which message asked for its level.
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
#include "subscriber/ReportEventServerImpl.h"

// What the classes keep to themselves.
namespace ReportEvent {
struct ServerTestAccess {
    using Impl = ReportEventServerImpl;
    static constexpr auto faults = &Impl::faultEvtSrcMap_, securities = &Impl::secEvtSrcMap_;
    static constexpr auto faultRunning = &Impl::faultEvtRunning_, securityRunning = &Impl::secEvtRunning_;
    static constexpr auto eventCallback = &Impl::reportEventCb;
    static constexpr auto deviceCallback = &Impl::reportEventMidCb, securityCallback = &Impl::idsEventReportCb;
};
}  // namespace ReportEvent

namespace ProcMgr {
struct ClientTestAccess {
    using Impl = ReportEventClientImpl;
    static constexpr auto& package = Impl::dataPakg_;
    static constexpr auto& block = Impl::blockHdl_;
    static constexpr auto& pool = Impl::poolHandle_;
    static constexpr auto& status = Impl::serverStatus_;
    static constexpr auto& currentFile = Impl::iamRtfsFile_;
    static constexpr auto poolRegistered = &Impl::poolRegistered_;
};
}  // namespace ProcMgr

namespace recording {

using Bytes = std::vector<unsigned char>;
using Hook = std::function<void()>;

// Joins the parts into one text.
template <typename... Parts> std::string Text(const Parts&... parts) {
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
    explicit Offstage(Stage as = PLATFORM) : saved_(std::exchange(stage, as)) {}
    ~Offstage() { stage = saved_; }
    Offstage(const Offstage&) = delete;

private:
    const Stage saved_;
};

// A lock of the platform's own; as a temporary, one until the end of its statement.
struct Locked : Offstage, std::lock_guard<std::mutex> {
    using std::lock_guard<std::mutex>::lock_guard;
};

// Heap use of the calling thread. A test may let the failing-th allocation from now on throw.
struct HeapUse {
    int64_t allocations = 0, live = 0, failing = 0;
};
inline thread_local HeapUse heap;
inline std::atomic<bool> noReadBuffers{false};

// The name a read thread has given itself, uncut; empty for any other thread.
inline thread_local std::string threadName;
// What CheckLogLevel has let through on this thread: its next line must begin so.
inline thread_local std::string messageDue;

// A thread of the test's own, joined at the latest by its destructor.
struct Background {
    explicit Background(Hook body) : thread((Offstage(), std::thread(std::move(body)))) {}
    ~Background() { Join(); }
    void Join() { thread.joinable() ? (Offstage(), thread.join()) : void(); }
    std::thread thread;
};

constexpr int FIRST_NUMBER = 1000;  // of the simulated descriptors
constexpr size_t READ_LENGTH = 3960;

// One for each test. What every test of the library's objects starts from: it watches the rules, and a test finds here
// what it says and sees.
class Platform {
public:
    struct Script {
        Hook hook;                      // runs on the calling thread with no lock held; may block, raise, call in
        std::optional<int64_t> result;  // nothing: the operation's ordinary one
    };
    struct OpenFile {
        std::string name;
        bool foreign = false, closed = false, blocked = false;  // foreign: the process's own
        std::thread::id reader;
    };
    struct Read : Script {  // without a result: go on waiting
        Bytes record;
        int error = 0;
    };

    // The rules that hold at the end of every test.
    ~Platform() {
        ofThisTest = nullptr;
        noReadBuffers = false;
        messageDue.clear();
        EXPECT_EQ(0, threads) << "read threads were left running";
        for (const auto& [number, file] : descriptors) {
            EXPECT_TRUE(file->foreign) << "descriptor " << number << " of " << file->name << " was never closed";
        }
    }

    // That of the running test; outside of one the library's own instances call from the exit handlers.
    static Platform& Get() {
        static Platform& outside = *new Platform;
        return ofThisTest != nullptr ? *ofThisTest : outside;
    }

    void Record(const std::string& operation, const std::string& text) {
        const Locked locked(mutex);
        const bool log = operation == "log";
        EXPECT_TRUE(log != messageDue.empty() && text.compare(0, messageDue.size(), messageDue) == 0)
            << "let through: '" << messageDue << "', written: " << text;
        messageDue.clear();
        lines.emplace_back(operation, text);
        changed.notify_all();
    }

    // The lines of the listed operations ("open close log"), or all, one after the other.
    std::string Journal(const std::string& listed = "") {
        const Locked locked(mutex);
        std::string text;
        for (const auto& [operation, line] : lines) {
            const bool isListed = (" " + listed + " ").find(" " + operation + " ") != std::string::npos;
            if (listed.empty() || isListed) { text += (text.empty() ? "" : " | ") + line; }
        }
        return text;
    }

    // How many lines hold the text.
    size_t Count(const std::string& part) {
        const Locked locked(mutex);
        const auto holds = [&](const auto& line) { return line.second.find(part) != std::string::npos; };
        return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), holds));
    }

    void ClearJournal() { Locked{mutex}, lines.clear(); }

    bool Await(const std::string& part, size_t count = 1) {
        return AwaitCondition(part, [&] { return Count(part) >= count; });
    }

    // On the system clock: the steady one is the library's. Looks again every 5 ms at what changes without notice.
    bool AwaitCondition(const std::string& what, const std::function<bool()>& condition) {
        using Clock = std::chrono::system_clock;
        const Offstage offstage;
        const auto deadline = Clock::now() + std::chrono::seconds(testing::Test::HasFailure() ? 1 : 20);
        while (!condition()) {
            if (Clock::now() > deadline) {
                ADD_FAILURE() << "waited in vain for " << what << " after " << Journal();
                return false;
            }
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait_until(lock, Clock::now() + std::chrono::milliseconds(5));
        }
        return true;
    }

    // A read of each file waits and nothing is queued for it.
    template <typename... Files> void AwaitBlocked(const Files&... names) { (AwaitOneBlocked(names), ...); }

    void AwaitOneBlocked(const std::string& name) {
        AwaitCondition("a blocked read of " + name, [&] {
            const Locked locked(mutex);
            return std::any_of(descriptors.begin(), descriptors.end(), [&](const auto& entry) {
                return entry.second->name == name && entry.second->blocked && reads[name].empty();
            });
        });
    }

    // This many read threads are left.
    void AwaitThreads(int count = 0) {
        AwaitCondition("the end of threads", [&] { return threads == count; });
    }

    // Scripts the next call of an operation, or every one from now on.
    void Next(const std::string& operation, Hook hook, std::optional<int64_t> result = std::nullopt) {
        Locked{mutex}, scripts[operation].push_back({std::move(hook), result});
    }

    void Results(const std::string& operation, const std::vector<int64_t>& results) {
        for (const int64_t result : results) { Next(operation, nullptr, result); }
    }

    void Always(const std::string& operation, Hook hook, std::optional<int64_t> result = std::nullopt) {
        Locked{mutex}, always[operation] = {std::move(hook), result};
    }

    std::optional<int64_t> Scripted(const std::string& operation) {
        Script script;
        {
            const Locked locked(mutex);
            std::deque<Script>& queue = scripts[operation];
            script = queue.empty() ? always[operation] : queue.front();
            if (!queue.empty()) { queue.pop_front(); }
        }
        if (script.hook) { script.hook(); }
        return script.result;
    }

    // Queues what the next read of the file does.
    void OnRead(const std::string& name, Read read) {
        Locked{mutex}, reads[name].push_back(std::move(read)), changed.notify_all();
    }

    void Deliver(const std::string& name, const Bytes& record, Hook hook = nullptr) {
        OnRead(name, {{std::move(hook), record.size()}, record, 0});
    }

    void Fail(const std::string& name, int error, Hook hook = nullptr, int64_t result = -1) {
        OnRead(name, {{std::move(hook), result}, {}, error});
    }

    // Opens of the file fail, or succeed again.
    void SetAbsent(const std::string& name, bool isAbsent = true) { Locked{mutex}, absent[name] = isAbsent; }

    // The next descriptors are the lowest free ones from here on: a number just closed is at once given out again.
    void UseNumbersFrom(int number) { Locked{mutex}, firstNumber = number; }

    int TakeNumber(const std::string& name, bool foreign) {
        const Locked locked(mutex);
        int number = absent[name] ? -1 : firstNumber;
        while (descriptors.count(number) != 0) { ++number; }
        if (number >= 0) { descriptors[number].reset(new OpenFile{name, foreign, false, false, {}}); }
        return number;
    }

    // The process opens a file of its own.
    int OpenForeign() { return TakeNumber("the process's own", true); }

    bool Close(int fd);
    int64_t ReadRecord(int fd, unsigned char* buffer, int& error);

    static inline Platform* ofThisTest = nullptr;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::pair<std::string, std::string>> lines;  // operation and text
    std::map<std::string, std::deque<Script>> scripts;
    std::map<std::string, Script> always;
    std::map<std::string, std::deque<Read>> reads;
    std::map<std::string, bool> absent;
    std::map<int, std::shared_ptr<OpenFile>> descriptors;
    int firstNumber = FIRST_NUMBER;
    std::atomic<int> threads{0};  // read threads alive
    std::atomic<int64_t> nanoseconds{0};

    // What was handed over last, kept beyond the call.
    std::string serviceName;
    IAMRTServiceRecord service = {};
    IAMFileOperations serviceOperations = {};
    FTEReportInfo faultReport = {};
    std::function<int(const unsigned char*, unsigned int)> faultCallback;
    std::atomic<bool> publishing{false};  // between the allocation of a block and the end of it
    std::map<uint64_t, std::vector<std::string>> enqueued;
    std::map<uint64_t, std::string> blocks;
    // The decoder, which the test supplies.
    std::function<int(const unsigned char*, unsigned int, FTEInfo*, UDSInfo*)> deserialize;
};

// Holds a thread until the test opens it.
struct Gate {
    void Hold() {
        arrived = true;
        Platform::ofThisTest->AwaitCondition("the opening of a gate", [this] { return open.load(); });
    }
    void AwaitArrival() {
        Platform::ofThisTest->AwaitCondition("somebody at a gate", [this] { return arrived.load(); });
    }
    void Open() { open = true; }
    std::atomic<bool> arrived{false}, open{false};
};

using ReportEvent::FAULT_EVENT;
using ReportEvent::SECURITY_EVENT;
using Server = ReportEvent::ReportEventServerImpl;
using Names = std::vector<std::string>;

const std::string PM = "dp:/res/pm/fm";
const std::string SEA = "sea:/res/pm/fm";
const std::string SEC = "dp:/res/iam/sec_event";
const std::string ONE = "a:/res/one";
const std::string TWO = "b:/res/two";

constexpr int BAD_NAME = 0xf10206;
constexpr int OPEN_FAILED = 0xf10005;

// A raw record whose event bears `name`; by default the event log stays silent about it.
inline Bytes Raw(unsigned char header, const std::string& name, unsigned char forceLog = 0,
                 unsigned char assertion = 1) {
    Bytes record(362, 0);
    record[0] = header;
    record[1] = forceLog;
    record[2 + 19] = assertion;
    std::copy(name.begin(), name.end(), record.begin() + 2 + 40);
    return record;
}

// One subscriber on a fresh platform, with callbacks that write what they get into the journal.
class LibraryTest : public testing::Test, public Platform, public ReportEvent::ServerTestAccess {
protected:
    LibraryTest() {
        ofThisTest = this;
        Get(deviceCallback) = Teller("device");
        Get(securityCallback) = Teller("security");
    }

    // A data member of the subscriber.
    template <typename Type> Type& Get(Type Server::*member) { return (*server_).*member; }

    // A callback that writes "<who> <event name>" into the journal.
    std::function<void(const dsmi_event&)> Teller(const std::string& who) {
        return [this, who](const dsmi_event& event) {
            const Offstage offstage;
            Record("deliver", who + " " + event.eventName);
        };
    }

    std::unique_ptr<Server> server_ = std::make_unique<Server>();
};

}  // namespace recording

#endif  // REPORT_EVENT_TESTS_FAKES_RECORDING_PLATFORM_H

// What the development host's IAM promises beyond platform/include/iam.h: its files, its bounds, its behaviour where
// the system runs short, at exit and in a child of fork, and what it tells tools.
#include <sys/file.h>
#include <sys/stat.h>

#include <csignal>
#include <ctime>
#include <deque>
#include <fstream>

#include "fte.h"
#include "platform/host/common/Descriptor.h"
#include "platform/host/iam/HostService.h"
#include "tests/unit/iam_support.h"

// While set, no object can be had from the heap: all threads of the process see it. Not inlined, so that the compiler
// takes the one for what the other gives back.
static std::atomic<bool> memoryIsShort{false};

__attribute__((noinline)) void* operator new(size_t size, const std::nothrow_t& /*unused*/) noexcept
{
    return memoryIsShort ? nullptr : malloc(size);
}
__attribute__((noinline)) void* operator new[](size_t size, const std::nothrow_t& nothrow) noexcept
{
    return operator new(size, nothrow);
}
__attribute__((noinline)) void* operator new(size_t size)
{
    void* const memory = operator new(size, std::nothrow);
    return memory != nullptr ? memory : throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* memory) noexcept
{
    free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, size_t /*unused*/) noexcept
{
    free(memory);
}

// What `open` becomes in a program that is linked for the host platform; this declaration allows a null name.
extern "C" int __wrap_open(const char* name, int flags, ...);

namespace iam_test {
namespace {

using host_platform::UniqueFd;
namespace fs = std::filesystem;

using IamHostTest = IamTest;

// What another process of this role writes to its standard error; it must end well.
std::string ErrorsOf(const std::string& role)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, StatusOf(StartRole(role))) << role;
    return testing::internal::GetCapturedStderr();
}

int Mode(const std::string& path)
{
    return static_cast<int>(fs::status(path).permissions());
}

// ---------------------------------------------------------------------------------------------------------------------
// Files

TEST_F(IamHostTest, OrdinaryFilesPassThrough)
{
    const std::string path = directory + "/file";
    const int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0600);
    EXPECT_EQ(0600, Mode(path));
    EXPECT_EQ("!EBADF", ReadFrom(fd));
    EXPECT_EQ(0, close(fd));
    EXPECT_EQ(-1, close(fd));
    EXPECT_EQ(0, unlink(path.c_str()));
    EXPECT_EQ(-1, __wrap_open(nullptr, O_RDWR));
    EXPECT_EQ(EFAULT, errno);
    const Publisher publisher(1);
    EXPECT_EQ(EACCES, Reader(NAME, O_WRONLY).error);
    EXPECT_EQ(-EINVAL, Publisher(0, "no resource").Serve());
    EXPECT_EQ(-EINVAL, Publisher(0, "not/a:/res/name").Serve());
}

TEST_F(IamHostTest, ARuntimeDirectoryThatIsNotPrivateIsRefused)
{
    const std::string inner = directory + "/inner";
    const auto refused = [&](const std::string& value, int error, const char* what) {
        setenv("IAM_RUNTIME_DIR", value.c_str(), 1);
        EXPECT_EQ(-error, Publisher().Serve()) << what;
        EXPECT_NE(0, Reader().error) << what;
        fs::remove_all(inner);
    };
    EXPECT_EQ(0, mkdir(inner.c_str(), 0750));
    refused(inner, EACCES, "others can enter");
    fs::create_directory_symlink(directory, inner);
    refused(inner, ENOTDIR, "a link");
    std::ofstream(inner).close();
    refused(inner, ENOTDIR, "a file");
    refused(inner + "/missing/deeper", ENOENT, "nowhere to make it");
    refused("relative", EINVAL, "relative");
    refused("/missing/" + std::string(99, 'd'), ENAMETOOLONG, "too long for any socket");
    refused("/missing/" + std::string(98, 'd'), ENOENT, "just as long as one may be");
    if (geteuid() == 0) {
        EXPECT_EQ(0, mkdir(inner.c_str(), 0700));
        EXPECT_EQ(0, chown(inner.c_str(), 12345, 12345));
        refused(inner, EACCES, "another user's");
    }
}

// Two that start at once take turns; one that never ends its turn is not waited for.
TEST_F(IamHostTest, ADirectoryThatStaysLockedIsAnError)
{
    const UniqueFd locked(open(directory.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(0, flock(locked.Get(), LOCK_EX));
    EXPECT_EQ(-EWOULDBLOCK, Publisher().Serve());
}

TEST_F(IamHostTest, PathsFitToTheLastCharacter)
{
    // "dp:/res/" is 14 characters when it is encoded.
    const std::string longest = "dp:/res/" + std::string(107 - directory.size() - 1 - 14, 'x');
    Publisher publisher(1, longest.c_str());
    EXPECT_EQ(0, Reader(longest.c_str()).error);
    EXPECT_EQ(ENAMETOOLONG, Reader((longest + "x").c_str()).error);
    EXPECT_EQ(0, IAMShmDestroyPool(&publisher.pool));
    EXPECT_EQ(-ENAMETOOLONG, Publisher(0, (longest + "x").c_str()).Serve());
    // Below XDG_RUNTIME_DIR the directory is made, with the right mode.
    unsetenv("IAM_RUNTIME_DIR");
    setenv("XDG_RUNTIME_DIR", directory.c_str(), 1);
    const size_t size = directory.size() + strlen("/iam") + 1;
    char path[64];
    EXPECT_EQ(-EINVAL, IAMHostRuntimeDirectory(nullptr, size));
    EXPECT_EQ(-ERANGE, IAMHostRuntimeDirectory(path, size - 1));
    EXPECT_EQ(0, IAMHostRuntimeDirectory(path, size));
    EXPECT_EQ(directory + "/iam", path);
    {
        const Publisher below(1);
    }
    EXPECT_EQ(0700, Mode(path));
    EXPECT_TRUE(fs::remove(path));
    unsetenv("XDG_RUNTIME_DIR");
}

// Another mode; the directory is moved away, twice; the socket is removed and somebody else's file has its name.
TEST_F(IamHostTest, TheLossOfTheSocketIsSaidOnceAndAForeignFileIsNotReplaced)
{
    const std::string said = "its socket " + SocketPath() + " is gone";
    const std::function<void()> leave = [&] { fs::rename(directory, directory + "-away"); };
    const std::function<void()> comeBack = [&] { fs::rename(directory + "-away", directory); };
    const std::pair<bool, std::vector<std::function<void()>>> rows[] = {
        {false, {[&] { EXPECT_EQ(0, chmod(SocketPath().c_str(), 0600)); }}},
        {true, {leave, comeBack, leave, comeBack}},
        {true, {[&] { fs::remove(SocketPath()); }, [&] { std::ofstream(SocketPath()).close(); }}},
    };
    for (const auto& [isLoss, steps] : rows) {
        testing::internal::CaptureStderr();
        {
            Publisher publisher(4);
            std::deque<Reader> leaving(steps.size());
            const Reader reader;
            size_t left = 0;
            for (const auto& step : steps) {
                step();
                leaving.pop_back();
                ++left;
                EXPECT_TRUE(Eventually([&] { return receiver->closed == left; }));
            }
            ExpectDelivery(publisher, reader);
        }
        const std::string errors = testing::internal::GetCapturedStderr();
        EXPECT_EQ(isLoss, errors.find(said) != std::string::npos) << errors;
        EXPECT_EQ(errors.find(said), errors.rfind(said)) << errors;
    }
    EXPECT_TRUE(fs::is_regular_file(SocketPath()));
    EXPECT_EQ(-EEXIST, Publisher().Serve());
    EXPECT_TRUE(fs::remove(SocketPath()));
    Publisher publisher(4);  // a second try
    ExpectDelivery(publisher, Reader());
}

// ---------------------------------------------------------------------------------------------------------------------
// Bounds

TEST_F(IamHostTest, ASupersededReaderIsCutOffOnlyWhenItStandsStill)
{
    using std::chrono::milliseconds;
    Publisher publisher(1000);
    const Reader slow;
    IAMHostObserve(1);
    const Reader observer;  // has no part in it
    IAMHostObserve(0);
    publisher.PublishNumbered(900, 10);
    observer.ExpectNumbered(100, 10);
    Reader stalled;
    size_t accepted = 0;
    // The older one reads on for far longer than a stalled one may stand still: it gets all that it was given.
    for (size_t i = 0; i < 900; ++i) {
        ASSERT_EQ(Numbered(i, 10), slow.Read());
        while (publisher.Publish(Numbered(accepted, 20)) == 0) {
            ++accepted;
        }
        std::this_thread::sleep_for(i < 300 ? milliseconds(1) : milliseconds(0));
    }
    EXPECT_EQ(1000U, accepted);
    EXPECT_EQ(0U, receiver->closed);
    EXPECT_EQ(0, IAMHostLostPlace(NAME));
    // The other one reads nothing: it loses its place when the next one needs the blocks, but not at once.
    const auto superseded = Clock::now();
    const Reader newest;
    EXPECT_TRUE(Eventually([&] { return publisher.Publish("at last") == 0; }));
    EXPECT_GE(Clock::now() - superseded, milliseconds(200));
    EXPECT_EQ("!ESTALE", stalled.Read());
    EXPECT_EQ(1, IAMHostLostPlace(NAME));
    EXPECT_EQ(0, IAMHostLostPlace("dp:/res/unit/another"));
    EXPECT_EQ(Numbered(100, 10), observer.Read());
    EXPECT_TRUE(Eventually([&] { return IAMHostReaderCount(NAME) == 2; }));
    stalled.Close();
    EXPECT_EQ(0, IAMHostLostPlace(NAME));
    // The current one may stand still as long as it likes, also when it is published to inside its open notification.
    EXPECT_EQ("at last", newest.Read());
    publisher.PublishNumbered(1000, 30);
    for (const auto until = Clock::now() + milliseconds(300); Clock::now() < until;) {
        ASSERT_NE(0, publisher.Publish("full"));
    }
    newest.ExpectNumbered(1000, 30);
    receiver->whenOpened = [&] { publisher.PublishNumbered(1000, 40); };
    Reader().ExpectNumbered(1000, 40);
    EXPECT_TRUE(Eventually([&] { return receiver->closed == 2; }));
}

// Opens the name as often as it may, and stops.
TEST(Role, DISABLED_OpensAllItMay)
{
    std::deque<Reader> readers;
    while (readers.emplace_back().error == 0) {
    }
    EXPECT_EQ(ECONNREFUSED, readers.back().error);
    EXPECT_EQ(15U + 1, readers.size());
    raise(SIGSTOP);
}

TEST_F(IamHostTest, NoProcessTakesAllDescriptorsOfThePublisherNorDoAllTogether)
{
    const Limit few(RLIMIT_NOFILE, 60);  // 30 for all connections, 15 for one process
    Publisher publisher(4);
    const pid_t first = StartRole("OpensAllItMay");
    int status = 0;
    EXPECT_EQ(first, waitpid(first, &status, WUNTRACED));
    EXPECT_EQ(15, IAMHostReaderCount(NAME));
    ExpectDelivery(publisher, Reader());  // another one still gets in
    const pid_t second = StartRole("OpensAllItMay");
    EXPECT_EQ(second, waitpid(second, &status, WUNTRACED));
    EXPECT_EQ(30, IAMHostReaderCount(NAME));
    EXPECT_EQ(ECONNREFUSED, Reader().error);
    for (const pid_t pid : {first, second}) {
        kill(pid, SIGKILL);
        EXPECT_EQ(128 + SIGKILL, StatusOf(pid));
    }
    Reader reader;
    EXPECT_TRUE(Eventually([&] { return reader.fd >= 0 || reader.Open(); }));
    ExpectDelivery(publisher, reader);
}

TEST_F(IamHostTest, TooFewDescriptorsStopNeitherTheServiceNorLaterReaders)
{
    Publisher publisher;
    ASSERT_EQ(0, publisher.Serve());
    IAMHostObserve(1);
    const Reader observer;
    IAMHostObserve(0);
    const Limit few(RLIMIT_NOFILE, 100);
    const auto takeAllBut = [](size_t spare) {
        std::deque<UniqueFd> taken;
        while (taken.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC))) {
        }
        taken.resize(taken.size() - 1 - spare);
        return taken;
    };
    auto others = takeAllBut(1);
    ASSERT_EQ(0, publisher.MakePool(4));
    EXPECT_EQ("!ESTALE", observer.Read());  // none is left for a pool of its own
    others.clear();
    const auto begin = std::clock();
    for (size_t spare = 0; spare < 10; ++spare) {  // each time another step of an open fails, on this side or that
        others = takeAllBut(spare);
        Reader reader;
        EXPECT_TRUE(spare != 0 || reader.error != 0);
        EXPECT_TRUE(spare != 9 || reader.error == 0);
        others.clear();
        EXPECT_TRUE(Eventually([&] { return reader.fd >= 0 || reader.Open(); }));
        ExpectDelivery(publisher, reader);
    }
    EXPECT_LT(std::clock() - begin, CLOCKS_PER_SEC / 2);  // the service rests while it cannot accept
}

// ---------------------------------------------------------------------------------------------------------------------
// Short of something

TEST_F(IamHostTest, WithoutMemoryCallsFailReadersReadAndLeaveAndLaterAllIsWell)
{
    Publisher publisher;
    memoryIsShort = true;
    const int served = publisher.Serve();
    memoryIsShort = false;
    EXPECT_EQ(-ENOMEM, served);
    ASSERT_EQ(0, publisher.Serve());
    memoryIsShort = true;
    const int made = publisher.MakePool(4);
    memoryIsShort = false;
    EXPECT_EQ(-ENOMEM, made);
    ASSERT_EQ(0, publisher.MakePool(4));

    const Reader reader;
    ASSERT_EQ(0, publisher.Publish("record"));
    Reader leaving;
    int64_t size = 0;
    std::thread fresh([&] {  // has read nothing before
        static char buffer[3960];
        EXPECT_TRUE(Eventually([] { return memoryIsShort.load(); }));
        size = IAMFastRead(reader.fd, buffer, sizeof(buffer));
    });
    {
        const std::lock_guard<std::mutex> lock(receiver->mutex);
        receiver->closes.reserve(8);
    }
    memoryIsShort = true;
    leaving.Close();
    const bool heard = Eventually([] { return receiver->closed == 1; });
    const bool opened = leaving.Open();
    fresh.join();
    memoryIsShort = false;
    EXPECT_TRUE(heard);
    EXPECT_FALSE(opened);
    EXPECT_EQ(6, size);
    EXPECT_TRUE(leaving.Open());
    ExpectDelivery(publisher, leaving);
}

// As if the system had no room for their stacks.
TEST(Role, DISABLED_CannotStartThreads)
{
    const auto setStack = [](size_t size) {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        EXPECT_EQ(0, pthread_attr_setstacksize(&attributes, size));
        EXPECT_EQ(0, pthread_setattr_default_np(&attributes));
        pthread_attr_destroy(&attributes);
    };
    Publisher publisher;
    setStack(size_t{1} << 60);
    EXPECT_EQ(-EAGAIN, publisher.Serve());
    setStack(size_t{1} << 20);
    ASSERT_EQ(0, publisher.Serve());
    ASSERT_EQ(0, publisher.MakePool(4));
    setStack(size_t{1} << 60);
    EXPECT_EQ(EAGAIN, Reader().error);
    setStack(size_t{1} << 20);
    ExpectDelivery(publisher, Reader());
    std::atomic<int> delivered{0};
    const auto deliver = [&](const unsigned char*, unsigned int) { return ++delivered; };
    FTEReportInfo report{};
    setStack(size_t{1} << 60);
    EXPECT_NE(0, FTERegisterCallback(deliver));
    EXPECT_EQ(0, MidFTEReport(&report));  // to nobody
    setStack(size_t{1} << 20);
    EXPECT_EQ(0, FTERegisterCallback(deliver));
    EXPECT_EQ(0, MidFTEReport(&report));
    EXPECT_TRUE(Eventually([&] { return delivered == 1; }));
    EXPECT_EQ(0, FTEUnregisterCallback());
}

// Without the standard streams, libiam keeps away from their numbers, so that no line goes to a peer.
TEST(Role, DISABLED_HasNoStandardStreams)
{
    const int errors = dup(STDERR_FILENO);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        close(fd);
    }
    {
        Publisher publisher(4);
        const Reader reader;
        ExpectDelivery(publisher, reader);
        const Limit few(RLIMIT_NOFILE, static_cast<rlim_t>(reader.fd) + 1);  // only low numbers are left
        EXPECT_LT(STDERR_FILENO, Reader().fd);
        for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            EXPECT_EQ(-1, fcntl(fd, F_GETFD)) << fd;
        }
    }
    dup2(errors, STDOUT_FILENO);
    dup2(errors, STDERR_FILENO);
}

TEST_F(IamHostTest, AProcessThatLacksSomethingIsToldWhatAndRecovers)
{
    const std::pair<const char*, const char*> rolesAndCauses[] = {
        {"CannotStartThreads", "no thread can be started"},
        {"CannotStartThreads", "FTERegisterCallback failed: Resource"},
        {"HasNoStandardStreams", ""},
    };
    for (const auto& [role, cause] : rolesAndCauses) {
        const std::string errors = ErrorsOf(role);
        EXPECT_NE(std::string::npos, errors.find(cause)) << errors;
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// Other processes and threads

TEST_F(IamHostTest, SignalsForkAndExecLeaveItsThreadsServiceAndFilesAlone)
{
    Publisher publisher(4);
    sigset_t blocked{};
    receiver->whenOpened = [&] { pthread_sigmask(SIG_BLOCK, nullptr, &blocked); };
    const Reader reader;
    for (const int signal : {SIGTERM, SIGPIPE, SIGUSR1}) {
        EXPECT_EQ(1, sigismember(&blocked, signal)) << signal;
    }
    const pid_t child = fork();
    if (child == 0) {
        const bool refused = publisher.Serve() == -ENOTSUP && publisher.MakePool(4) == -ENOTSUP &&
                             Reader().error == ENOTSUP && IAMShmDestroyPool(&publisher.pool) != 0;
        close(reader.fd);
        _exit(refused ? 0 : 1);
    }
    EXPECT_EQ(0, StatusOf(child));
    ExpectDelivery(publisher, reader);
    // Nor does a program that is executed have any of its descriptors.
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        const std::string file = fs::read_symlink(entry.path());
        for (const std::string kind : {"socket:", "anon_inode:", "/memfd:", "/tmp/iam-unit"}) {
            const int flags = fcntl(std::stoi(entry.path().filename()), F_GETFD);
            EXPECT_TRUE(file.rfind(kind, 0) != 0 || flags == FD_CLOEXEC) << file;
        }
    }
}

TEST(Role, DISABLED_ExitsInsideANotification)
{
    [[maybe_unused]] static const auto& publisher = *new Publisher(4);
    receiver->whenOpened = [] { exit(0); };
    open(NAME, O_RDWR);
    pause();  // what this thread uses is being destroyed
}

TEST_F(IamHostTest, AnExitInsideANotificationWaitsForNobodyAndLeavesNothingBehind)
{
    EXPECT_EQ(0, StatusOf(StartRole("ExitsInsideANotification")));
    EXPECT_TRUE(fs::is_empty(directory));
}

// ---------------------------------------------------------------------------------------------------------------------
// Observers

TEST_F(IamHostTest, ThereAreSixteenObserversAtMostAndEachIsWoken)
{
    Publisher publisher(4);
    const Reader reader;
    setenv("IAM_OBSERVE", "1", 1);
    std::deque<Reader> observers(16);
    Reader another;
    EXPECT_EQ(ECONNREFUSED, another.error);
    observers.pop_front();
    EXPECT_TRUE(Eventually([&] { return another.Open(); }));
    setenv("IAM_OBSERVE", "0", 1);
    // One at a time, so that the observer falls asleep between.
    std::atomic<int> observed{0};
    std::thread observing([&] {
        for (; observed < 50; ++observed) {
            EXPECT_EQ("to all", another.Read());
        }
    });
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(0, publisher.Publish("to all"));
        EXPECT_EQ("to all", reader.Read());
        EXPECT_TRUE(Eventually([&] { return observed > i; }));
    }
    observing.join();
    for (const Reader& observer : observers) {
        EXPECT_EQ("to all", observer.Read());
    }
    EXPECT_EQ(1U, receiver->opened);
}

}  // namespace
}  // namespace iam_test

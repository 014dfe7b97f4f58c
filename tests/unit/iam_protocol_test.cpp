// Peers that speak the socket protocol by hand and break it: a service that lies to the reader, a reader that lies to
// the service. Neither may crash, block or corrupt the other side.
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cctype>
#include <map>
#include <memory>
#include <random>

#include "platform/host/iam/Descriptor.h"
#include "platform/host/iam/Protocol.h"
#include "platform/host/iam/Ring.h"
#include "tests/unit/iam_support.h"

namespace iam_test {
namespace {

using namespace host_platform::iam;

constexpr int SIZE_SEALS = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
constexpr int POOL_SEALS = SIZE_SEALS | F_SEAL_FUTURE_WRITE;
constexpr uint32_t BLOCKS = 4;
constexpr uint32_t STRIDE = 64;
constexpr uint32_t HUGE_NUMBER = 1U << 31;
constexpr uint64_t RING_SIZE = RingBytes(8);
constexpr uint64_t POOL_SIZE = uint64_t{BLOCKS} * STRIDE;

// What can be said with one letter: the sound messages in capitals; unsound HELLO (a field that is not used), RING
// (magic, version, type, a field that is not used, more entries than bytes, no entries, an odd number) and POOL (more
// blocks than bytes, a size that overflows).
const std::map<char, Message> MESSAGES{
    {'H', {PROTOCOL_MAGIC, 1, 1, 0, 0, 0}},
    {'R', {PROTOCOL_MAGIC, 1, 2, RING_SIZE, 8, 0}},
    {'Y', {PROTOCOL_MAGIC, 1, 3, 0, 0, 0}},
    {'P', {PROTOCOL_MAGIC, 1, 4, POOL_SIZE, BLOCKS, STRIDE}},
    {'C', {PROTOCOL_MAGIC, 1, 5, 0, 0, 0}},
    {'h', {PROTOCOL_MAGIC, 1, 1, 1, 0, 0}},
    {'m', {1, 1, 2, RING_SIZE, 8, 0}},
    {'v', {PROTOCOL_MAGIC, 2, 2, RING_SIZE, 8, 0}},
    {'t', {PROTOCOL_MAGIC, 1, 6, RING_SIZE, 8, 0}},
    {'f', {PROTOCOL_MAGIC, 1, 2, RING_SIZE, 8, 1}},
    {'e', {PROTOCOL_MAGIC, 1, 2, RING_SIZE, 16, 0}},
    {'n', {PROTOCOL_MAGIC, 1, 2, RingBytes(0), 0, 0}},
    {'o', {PROTOCOL_MAGIC, 1, 2, RingBytes(7), 7, 0}},
    {'p', {PROTOCOL_MAGIC, 1, 4, POOL_SIZE, 5, 64}},
    {'q', {PROTOCOL_MAGIC, 1, 4, POOL_SIZE, HUGE_NUMBER, HUGE_NUMBER}},
};

// One end of a connection, spoken by hand.
struct Wire {
    explicit Wire(int fd) : socket(fd) {}
    explicit Wire(const std::string& path) : Wire(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        EXPECT_EQ(0, WithAddress(connect, path));
    }
    // Calls connect or bind.
    template <typename Call> int WithAddress(Call call, const std::string& path) const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        return call(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    void Send(const void* bytes, size_t size, const std::vector<int>& fds) const {
        iovec part{const_cast<void*>(bytes), size};
        alignas(cmsghdr) char control[CMSG_SPACE(16 * sizeof(int))] = {};
        msghdr header{nullptr, 0, &part, 1, control, fds.empty() ? 0 : CMSG_SPACE(fds.size() * sizeof(int)), 0};
        if (!fds.empty()) {
            *CMSG_FIRSTHDR(&header) = {CMSG_LEN(fds.size() * sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
            memcpy(CMSG_DATA(CMSG_FIRSTHDR(&header)), fds.data(), fds.size() * sizeof(int));
        }
        sendmsg(socket.Get(), &header, MSG_NOSIGNAL);
    }
    // Says what the letters stand for: after a message, digits for the descriptors sent with it; J junk, L a message
    // one byte too long, E an empty one, X and W hang up and half so.
    void Say(const std::string& letters, const std::vector<int>& sendable = {}) const {
        for (size_t i = 0, end = 0; i < letters.size(); i = end) {
            std::vector<int> fds;
            for (end = i + 1; end < letters.size() && isdigit(letters[end]) != 0; ++end) {
                fds.push_back(sendable[static_cast<size_t>(letters[end] - '0')]);
            }
            const auto message = MESSAGES.find(letters[i]);
            if (message != MESSAGES.end()) {
                Send(&message->second, sizeof(Message), fds);
            } else if (letters[i] == 'X' || letters[i] == 'W') {
                shutdown(socket.Get(), letters[i] == 'X' ? SHUT_RDWR : SHUT_WR);
            } else {
                Send(std::string(100000, 'R').data(), letters[i] == 'J' ? 100000 : letters[i] == 'L' ? 25 : 0, fds);
            }
        }
    }
    // Waits for one message; false at the end of the connection.
    bool Receive(Message& message, std::vector<UniqueFd>& fds) const {
        iovec part{&message, sizeof message};
        alignas(cmsghdr) char control[CMSG_SPACE(4 * sizeof(int))] = {};
        msghdr header{nullptr, 0, &part, 1, control, sizeof control, 0};
        if (recvmsg(socket.Get(), &header, MSG_CMSG_CLOEXEC) <= 0) { return false; }
        const cmsghdr* const rights = CMSG_FIRSTHDR(&header);
        for (size_t i = 0; rights != nullptr && CMSG_LEN(i * sizeof(int)) < rights->cmsg_len; ++i) {
            fds.emplace_back(reinterpret_cast<const int*>(CMSG_DATA(rights))[i]);
        }
        return true;
    }
    // Waits until the other side has hung up, whatever it still sent.
    bool IsHungUp() const {
        pollfd waiting{socket.Get(), POLLRDHUP, 0};
        return poll(&waiting, 1, static_cast<int>(std::chrono::milliseconds(PATIENCE).count())) == 1;
    }

    UniqueFd socket;
};

struct Memory {
    explicit Memory(size_t size, int seals = SIZE_SEALS) : fd(memfd_create("unit", MFD_ALLOW_SEALING | MFD_CLOEXEC)) {
        EXPECT_EQ(0, ftruncate(fd.Get(), static_cast<off_t>(size)));
        map = Mapping(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.Get(), 0), size);
        EXPECT_EQ(0, fcntl(fd.Get(), F_ADD_SEALS, seals));
    }
    UniqueFd fd;
    Mapping map;
};

// ---------------------------------------------------------------------------------------------------------------------
// A hostile service

// A connection that it has accepted, with sound and unsound things to send.
struct Lies {
    explicit Lies(int fd) : wire(fd) {
        constexpr uint64_t R = RING_SIZE, P = POOL_SIZE;
        constexpr int SEALS[] = {SIZE_SEALS,  POOL_SEALS, SIZE_SEALS, SIZE_SEALS,
                                 F_SEAL_GROW, 0,          SIZE_SEALS, POOL_SEALS};
        const int* seals = SEALS;
        for (const uint64_t size : {R, P, R - 8, R + 8, R, R, P, P - 1}) { memory.emplace_back(size, *seals++); }
        int ends[2];
        EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));  // it may block: not the reader's problem
        bell.Reset(ends[0]);
        ringer.Reset(ends[1]);
    }
    // Besides what Wire can say: V revokes the ring, N drops the end of the bell that rings.
    void Say(const std::string& letters) {
        std::vector<int> fds{bell.Get()};
        for (const Memory& each : memory) { fds.push_back(each.fd.Get()); }
        if (letters == "N") { return ringer.Reset(); }
        if (letters == "V") {
            Ring().revoked = 1;
        } else {
            wire.Say(letters, fds);
        }
    }
    RingHeader& Ring() const { return *reinterpret_cast<RingHeader*>(memory[0].map.Bytes()); }
    void Count(uint64_t appended) const {
        Ring().appended = appended;
        EXPECT_EQ(1, write(ringer.Get(), "", 1));
    }

    Wire wire;
    UniqueFd bell;
    UniqueFd ringer;
    // Sent with the digits 1 the ring, 2 the pool; rings: 3 smaller and 4 larger than announced, 5 that can shrink, 6
    // without seals; pools: 7 that can be written, 8 smaller than announced. 0 is the bell.
    std::vector<Memory> memory;
};
using HostileServiceTest = IamTest;
using Script = std::function<void(Lies&)>;

class HostileService {
public:
    HostileService(const std::string& path, const Script& script, int backlog = 8)
        : path_(path), listener_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        EXPECT_EQ(0, listener_.WithAddress(bind, path));
        EXPECT_EQ(0, listen(listener_.socket.Get(), backlog));
        if (!script) { return; }
        thread_ = std::thread([this, script] {
            Lies lies(accept4(listener_.socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            Message message;
            std::vector<UniqueFd> fds;
            EXPECT_TRUE(lies.wire.Receive(message, fds));
            script(lies);
            while (lies.wire.Receive(message, fds)) {}  // until the reader is gone
        });
    }
    ~HostileService() {
        if (thread_.joinable()) { thread_.join(); }
        unlink(path_.c_str());
    }

private:
    std::string path_;
    Wire listener_;
    std::thread thread_;
};

TEST_F(HostileServiceTest, OpenFailsInBoundedTimeWithTheRightCauseAndKeepsNothing) {
    const std::pair<int, std::vector<const char*>> cases[] = {
        {ETIMEDOUT, {"", "R10"}},
        {ECONNREFUSED, {"X", "E", "R10X"}},
        {EPROTO, {"J", "L", "m10", "v10", "t10", "f10", "e10", "n10", "o10"}},
        {EPROTO, {"R", "R1", "R100", "R30", "R40", "R50", "R60", "R00", "R11"}},
        {EPROTO, {"P2", "C", "R10R10", "R10C1", "R10P2P2", "R10P", "R10P7", "R10P8", "R10p2", "R10q2"}},
    };
    for (const auto& [error, scripts] : cases) {
        for (const char* const script : scripts) {
            const HostileService service(SocketPath(), [say = script](Lies& lies) { lies.Say(say); });
            EXPECT_EQ(error, OpenError()) << script;
        }
    }
    const HostileService full(SocketPath(), nullptr, 0);
    const Wire first(SocketPath());
    EXPECT_EQ(ETIMEDOUT, OpenError());
}

TEST_F(HostileServiceTest, MoreDescriptorsThanThereIsRoomForAreNotKept) {
#ifdef TEST_EMULATED
    GTEST_SKIP() << "qemu-user takes in more descriptors than the receiver made room for, and never closes those";
#endif
    {
        const HostileService service(SocketPath(), [](Lies& lies) { lies.Say("R1010101010101010"); });
        EXPECT_EQ(EPROTO, OpenError());
    }
    const Publisher publisher(4);
    const Wire wire(SocketPath());
    wire.Say("H0000000000000000", {STDERR_FILENO});
    EXPECT_TRUE(wire.IsHungUp());
}

TEST_F(HostileServiceTest, AReadFailsOnWhatMakesNoSenseAndNeverLeavesThePool) {
    const auto check = [&](const char* expected, const char* said, uint64_t entry, uint64_t appended) {
        std::atomic<bool> opened{false};
        const HostileService service(SocketPath(), [&](Lies& lies) {
            memcpy(lies.memory[1].map.Bytes() + 3 * STRIDE, "last", 4);
            reinterpret_cast<std::atomic<uint64_t>*>(&lies.Ring() + 1)[0] = entry;
            lies.Say("R10P2C");
            EXPECT_TRUE(Eventually([&] { return opened.load(); }));
            lies.Say(said);
            if (appended != 0) { lies.Count(appended); }
        });
        const Reader reader;
        opened = true;
        const std::string result = reader.Read();
        EXPECT_EQ(expected, result) << said << ' ' << entry << ' ' << appended;
        if (result == "!EPROTO") { EXPECT_EQ(result, reader.Read()); }
    };
    check("", "", PackEntry(3, 0), 1);
    check("last", "", PackEntry(3, 4), 1);
    for (const uint64_t entry :
         {PackEntry(4, 1), PackEntry(UINT32_MAX, 1), PackEntry(0, 65), PackEntry(0, UINT32_MAX)}) {
        check("!EPROTO", "", entry, 1);
    }
    for (const uint64_t count : {uint64_t{9}, UINT64_MAX}) { check("!EPROTO", "", 0, count); }
    for (const char* const said : {"J", "P2", "R10", "C"}) { check("!EPROTO", said, 0, 0); }
    for (const char* const said : {"X", "N"}) { check("!EPIPE", said, 0, 0); }
    check("!EPIPE", "V", PackEntry(0, 1), 1);
    // What was queued before the hang-up is delivered, also when the reader hears of the hang-up first.
    {
        const HostileService service(SocketPath(), [](Lies& lies) {
            lies.Say("R10P2C");
            EXPECT_TRUE(Eventually([&] { return lies.Ring().sleeping == 1; }));
            lies.Ring().appended = 1;  // and no bell
            lies.Say("X");
        });
        const Reader reader;
        EXPECT_EQ("", reader.Read());
        EXPECT_EQ("!EPIPE", reader.Read());
    }
    // Records before there is a pool; and a count that goes back.
    for (const bool withPool : {false, true}) {
        const HostileService service(SocketPath(), [&](Lies& lies) {
            lies.Ring().appended = 2;
            lies.Say(withPool ? "R10P2C" : "R10C");
            EXPECT_TRUE(Eventually([&] { return !withPool || lies.Ring().consumed == 2; }));
            lies.Count(1);
        });
        const Reader reader;
        for (int i = 0; withPool && i < 2; ++i) { EXPECT_EQ("", reader.Read()); }
        EXPECT_EQ("!EPROTO", reader.Read());
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// The ring between two that are honest

// Each record is appended just when the reader is about to sleep.
TEST(RingTest, NoReaderSleepsThroughARecord) {
#ifdef TEST_EMULATED
    GTEST_SKIP() << "qemu-user on x86 lets a load (LDAR) overtake an older store (STLR), as no AArch64 processor does";
#endif
    const Memory memory(RING_SIZE, 0);
    const auto map = [&] {
        return Mapping(mmap(nullptr, RING_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, memory.fd.Get(), 0), RING_SIZE);
    };
    RingWriter writer(map(), 8);
    RingReader reader(map(), 8);
    constexpr uint32_t RECORDS = 100'000;
    std::atomic<uint32_t> taken{0};
    std::atomic<bool> rung{false};
    std::thread reading([&] {
        while (taken < RECORDS && !HasFailure()) {
            if (reader.Look() == RingReader::State::READY) {
                EXPECT_EQ(PackEntry(taken % 8, taken), reader.Front());
                reader.Pop();
                ++taken;
            } else if (reader.FallAsleep() == RingReader::State::EMPTY) {
                EXPECT_TRUE(Eventually([&] { return rung.exchange(false); })) << taken;
            }
            reader.WakeUp();
        }
    });
    for (uint32_t n = 0; n < RECORDS && !HasFailure(); ++n) {
        if (writer.Append(n % 8, n)) { rung = true; }
        Eventually([&] { return taken > n; });
    }
    reading.join();
}

// ---------------------------------------------------------------------------------------------------------------------
// A hostile reader

// A reader that speaks by hand and has completed the handshake.
struct HandReader {
    explicit HandReader(const std::string& path) : wire(path) {
        Message message;
        wire.Say("H");
        EXPECT_TRUE(wire.Receive(message, fds));
        void* const memory = mmap(nullptr, message.bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fds.at(0).Get(), 0);
        ring = Mapping(memory, message.bytes);
        wire.Say("Y");
        do { EXPECT_TRUE(wire.Receive(message, fds)); } while (message.type == MESSAGES.at('P').type);
        EXPECT_EQ(MESSAGES.at('C').type, message.type);
    }
    RingHeader& Header() const { return *reinterpret_cast<RingHeader*>(ring.Bytes()); }

    Wire wire;
    std::vector<UniqueFd> fds;  // ring, bell, pool
    Mapping ring;
};

class HostileReaderTest : public IamTest {
protected:
    ~HostileReaderTest() override {
        ServesAGoodReader();
        EXPECT_EQ(100U, publisher.FreeBlocks());
    }
    void ServesAGoodReader() {
        const Reader reader;
        EXPECT_EQ(0, publisher.Publish("good"));
        EXPECT_EQ("good", reader.Read());
    }

    Publisher publisher{100};
};

TEST_F(HostileReaderTest, WrongMessagesEndTheConnectionAndNobodyHearsOfIt) {
    const Memory memory(64);
    const std::vector<int> fds(1, memory.fd.Get());
    for (const char* const script : {"J", "L", "E", "H0", "Y", "C", "h", "HH", "R00", "HW", "HYJ"}) {
        const Wire wire(SocketPath());
        wire.Say(script, fds);
        EXPECT_TRUE(wire.IsHungUp()) << script;
    }
    EXPECT_LE(receiver.opened, 1U);  // the last one got that far
}

TEST_F(HostileReaderTest, IdleConnectionsAreDroppedAndHoldNobodyUp) {
    std::vector<std::unique_ptr<Wire>> idle;
    for (int i = 0; i < 200; ++i) {
        idle.push_back(std::make_unique<Wire>(SocketPath()));
        if (i % 2 == 0) { idle.back()->Say("H"); }  // and never reads the answer
    }
    const auto begin = Clock::now();
    ServesAGoodReader();
    EXPECT_LT(Clock::now() - begin, OPEN_BOUND);
    for (const auto& wire : idle) { EXPECT_TRUE(wire->IsHungUp()); }
    EXPECT_EQ(1U, receiver.opened);
}

TEST_F(HostileReaderTest, OneThatMeetsAServiceWithoutDescriptorsIsServedLater) {
    const UniqueFd log(memfd_create("log", MFD_CLOEXEC));
    const UniqueFd standardError(dup(STDERR_FILENO));
    dup2(log.Get(), STDERR_FILENO);
    const Wire wire(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));  // takes the lowest free number
    const rlim_t limit = LimitDescriptors(static_cast<rlim_t>(wire.socket.Get()) + 1);
    EXPECT_EQ(0, wire.WithAddress(connect, SocketPath()));
    EXPECT_TRUE(Eventually([&] { return lseek(log.Get(), 0, SEEK_END) > 0; }));  // the service says that it must wait
    dup2(standardError.Get(), STDERR_FILENO);
    LimitDescriptors(limit);
    wire.Say("H");
    Message message;
    std::vector<UniqueFd> fds;
    EXPECT_TRUE(wire.Receive(message, fds));
}

TEST_F(HostileReaderTest, WhatItWasHandedCannotBeUsedAgainstTheService) {
    HandReader reader(SocketPath());
    ASSERT_EQ(3U, reader.fds.size());
    const int pool = reader.fds[2].Get();
    EXPECT_EQ(MAP_FAILED, mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, pool, 0));
    EXPECT_EQ(-1, fcntl(pool, F_ADD_SEALS, F_SEAL_WRITE));
    for (const int fd : {pool, reader.fds[0].Get()}) {
        for (const off_t size : {0, 1 << 24}) { EXPECT_EQ(-1, ftruncate(fd, size)); }
    }
    // The bell: full, blocking as far as its reader can make it, and always due.
    const std::string bell = "/proc/self/fd/" + std::to_string(reader.fds[1].Get());
    const UniqueFd filler(open(bell.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    fcntl(reader.fds[1].Get(), F_SETPIPE_SZ, 4096);
    fcntl(reader.fds[1].Get(), F_SETFL, 0);
    while (write(filler.Get(), "xxxxxxxx", 8) > 0) {}
    for (int i = 0; i < 100; ++i) {
        reader.Header().sleeping = 1;
        ASSERT_EQ(0, publisher.Publish(Numbered(1, 300)));
    }
    EXPECT_NE(0, publisher.Publish("full"));
    reader.wire.socket.Reset();  // dead, the bell unread: no SIGPIPE
    EXPECT_TRUE(Eventually([&] { return receiver.closed == 1; }));
}

TEST_F(HostileReaderTest, ScribblingOverItsRingHurtsOnlyItself) {
    std::mt19937_64 random(11);
    for (int round = 0; round < 60; ++round) {
        HandReader reader(SocketPath());
        ASSERT_EQ(0, publisher.Publish("first"));
        const auto before = Clock::now();
        if (round == 0) { reader.Header().consumed = 1000; }  // more than it was given
        for (int i = 0; i < 300; ++i) {
            if (round > 0) {
                const size_t word = random() % (round % 2 == 0 ? 80 : reader.ring.Size() / 8);
                reinterpret_cast<std::atomic<uint64_t>*>(reader.ring.Bytes())[word] = random() >> random() % 64;
            }
            publisher.Publish(Numbered(1, 200));
        }
        EXPECT_LT(Clock::now() - before, std::chrono::seconds(1));
        EXPECT_TRUE(round > 0 || reader.wire.IsHungUp());
    }
    EXPECT_TRUE(Eventually([&] { return receiver.closed == 60; }));
}

// ---------------------------------------------------------------------------------------------------------------------
// Another user. The directory keeps such a peer out; here it is let past it.

int InChildOfAnotherUser(const std::function<bool()>& act) {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(setresgid(12345, 12345, 12345) == 0 && setresuid(12345, 12345, 12345) == 0 && act() ? 0 : 1);
    }
    return StatusOf(pid);
}

TEST_F(IamTest, APeerOfAnotherUserIsRefused) {
    if (geteuid() != 0) { GTEST_SKIP() << "needs root to become another user"; }
    {
        // The user of a listening socket is whoever called listen.
        const Wire listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        ASSERT_EQ(0, listener.WithAddress(bind, SocketPath()));
        EXPECT_EQ(0, InChildOfAnotherUser([&] { return listen(listener.socket.Get(), 8) == 0; }));
        EXPECT_EQ(EACCES, OpenError());
    }
    const Publisher publisher(4);
    chmod(SocketPath().c_str(), 0777);
    const UniqueFd file(open(SocketPath().c_str(), O_PATH | O_CLOEXEC));
    EXPECT_EQ(0, InChildOfAnotherUser([&] {
                  const Wire wire("/proc/self/fd/" + std::to_string(file.Get()));
                  Message message;
                  std::vector<UniqueFd> fds;
                  wire.Say("H");
                  return wire.IsHungUp() && !wire.Receive(message, fds);
              }));
    EXPECT_EQ(0U, receiver.opened);
}

}  // namespace
}  // namespace iam_test

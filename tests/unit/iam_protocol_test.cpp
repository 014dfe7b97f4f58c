// Peers that speak the socket protocol by hand and break it: a service that lies to the reader, a reader that lies to
// the service. Neither may crash, block or corrupt the other side.
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cctype>
#include <deque>
#include <future>
#include <map>
#include <random>

#include "platform/host/common/Descriptor.h"
#include "platform/host/iam/wire/Protocol.h"
#include "platform/host/iam/wire/Ring.h"
#include "tests/unit/iam_support.h"

namespace iam_test {
namespace {

using namespace host_platform;
using namespace host_platform::iam;

constexpr int SIZE_SEALS = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
constexpr int POOL_SEALS = SIZE_SEALS | F_SEAL_FUTURE_WRITE;
constexpr uint32_t BLOCKS = 4;
constexpr uint32_t STRIDE = 64;
constexpr uint32_t HUGE_NUMBER = 1U << 31;
constexpr uint64_t RING_SIZE = RingBytes(8);
constexpr uint64_t POOL_SIZE = uint64_t{BLOCKS} * STRIDE;

std::string Bytes(const Message& message)
{
    return {reinterpret_cast<const char*>(&message), sizeof message};
}

// What can be said with one letter: the sound messages in capitals; unsound HELLO (a field that is not used), RING
// (magic, version, type, a field that is not used, more entries than bytes, no entries, an odd number) and POOL (more
// blocks than bytes, a size that overflows); J junk, L a message one byte too long, E an empty one.
const std::map<char, std::string> MESSAGES{{'H', Bytes({PROTOCOL_MAGIC, 1, 1, 0, 0, 0})},
                                           {'R', Bytes({PROTOCOL_MAGIC, 1, 2, RING_SIZE, 8, 0})},
                                           {'Y', Bytes({PROTOCOL_MAGIC, 1, 3, 0, 0, 0})},
                                           {'P', Bytes({PROTOCOL_MAGIC, 1, 4, POOL_SIZE, BLOCKS, STRIDE})},
                                           {'C', Bytes({PROTOCOL_MAGIC, 1, 5, 0, 0, 0})},
                                           {'h', Bytes({PROTOCOL_MAGIC, 1, 1, 1, 0, 0})},
                                           {'m', Bytes({1, 1, 2, RING_SIZE, 8, 0})},
                                           {'v', Bytes({PROTOCOL_MAGIC, 2, 2, RING_SIZE, 8, 0})},
                                           {'t', Bytes({PROTOCOL_MAGIC, 1, 6, RING_SIZE, 8, 0})},
                                           {'f', Bytes({PROTOCOL_MAGIC, 1, 2, RING_SIZE, 8, 1})},
                                           {'e', Bytes({PROTOCOL_MAGIC, 1, 2, RING_SIZE, 16, 0})},
                                           {'n', Bytes({PROTOCOL_MAGIC, 1, 2, RingBytes(0), 0, 0})},
                                           {'o', Bytes({PROTOCOL_MAGIC, 1, 2, RingBytes(7), 7, 0})},
                                           {'p', Bytes({PROTOCOL_MAGIC, 1, 4, POOL_SIZE, 5, 64})},
                                           {'q', Bytes({PROTOCOL_MAGIC, 1, 4, POOL_SIZE, HUGE_NUMBER, HUGE_NUMBER})},
                                           {'J', std::string(100000, 'R')},
                                           {'L', std::string(25, 'R')},
                                           {'E', ""}};

// One end of a connection, spoken by hand.
struct Wire {
    explicit Wire(int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) : socket(fd)
    {
    }
    explicit Wire(const std::string& path) : Wire()
    {
        EXPECT_EQ(0, WithAddress(connect, path));
    }

    // Calls connect or bind.
    template <typename Call>
    int WithAddress(Call call, const std::string& path) const
    {
        sockaddr_un address{AF_UNIX, {}};
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        return call(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    void Send(std::string bytes, const std::vector<int>& fds) const
    {
        iovec part{bytes.data(), bytes.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(16 * sizeof(int))] = {};
        msghdr header{nullptr, 0, &part, 1, control, fds.empty() ? 0 : CMSG_SPACE(fds.size() * sizeof(int)), 0};
        if (!fds.empty()) {
            *CMSG_FIRSTHDR(&header) = {CMSG_LEN(fds.size() * sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
            memcpy(CMSG_DATA(CMSG_FIRSTHDR(&header)), fds.data(), fds.size() * sizeof(int));
        }
        sendmsg(socket.Get(), &header, MSG_NOSIGNAL);
    }
    // Says what the letters stand for: after a message, digits for the descriptors sent with it; X and W hang up and
    // half so; any other letter is an act of the caller's.
    void Say(const std::string& letters, const std::vector<int>& sendable = {},
             const std::function<void(char)>& act = {}) const
    {
        for (size_t i = 0; i < letters.size();) {
            const char letter = letters[i++];
            std::vector<int> fds;
            for (; isdigit(letters[i]) != 0; ++i) {
                fds.push_back(sendable[static_cast<size_t>(letters[i] - '0')]);
            }
            if (const auto message = MESSAGES.find(letter); message != MESSAGES.end()) {
                Send(message->second, fds);
            } else if (letter == 'X' || letter == 'W') {
                shutdown(socket.Get(), letter == 'X' ? SHUT_RDWR : SHUT_WR);
            } else {
                act(letter);
            }
        }
    }
    // Waits for one message; false at the end of the connection.
    bool Receive()
    {
        iovec part{&message, sizeof message};
        alignas(cmsghdr) char control[CMSG_SPACE(4 * sizeof(int))] = {};
        msghdr header{nullptr, 0, &part, 1, control, sizeof control, 0};
        if (recvmsg(socket.Get(), &header, MSG_CMSG_CLOEXEC) <= 0) {
            return false;
        }
        const cmsghdr* const rights = CMSG_FIRSTHDR(&header);
        for (size_t i = 0; rights != nullptr && CMSG_LEN(i * sizeof(int)) < rights->cmsg_len; ++i) {
            received.emplace_back(reinterpret_cast<const int*>(CMSG_DATA(rights))[i]);
        }
        return true;
    }
    // Waits until the other side has hung up, whatever it still sent.
    bool IsHungUp() const
    {
        pollfd waiting{socket.Get(), POLLRDHUP, 0};
        return poll(&waiting, 1, static_cast<int>(std::chrono::milliseconds(PATIENCE).count())) == 1;
    }

    UniqueFd socket;
    Message message{};               // the last one received
    std::vector<UniqueFd> received;  // all descriptors
};

Mapping Map(const UniqueFd& memory, size_t size)
{
    return Mapping(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, memory.Get(), 0), size);
}

struct Memory {
    explicit Memory(size_t size, int seals = SIZE_SEALS) : fd(memfd_create("unit", MFD_ALLOW_SEALING | MFD_CLOEXEC))
    {
        EXPECT_EQ(0, ftruncate(fd.Get(), static_cast<off_t>(size)));
        map = Map(fd, size);
        EXPECT_EQ(0, fcntl(fd.Get(), F_ADD_SEALS, seals));
    }
    UniqueFd fd;
    Mapping map;
};

// ---------------------------------------------------------------------------------------------------------------------
// A hostile service

class HostileServiceTest : public IamTest {
protected:
    Wire Listener(int backlog) const
    {
        Wire listener;
        EXPECT_EQ(0, listener.WithAddress(bind, SocketPath()));
        EXPECT_EQ(0, listen(listener.socket.Get(), backlog));
        return listener;
    }
    // What a reader gets from a service that says this: the error of its open, or all that it reads up to an error,
    // which must stay.
    std::string Heard(const std::string& script, uint64_t entry = 0) const
    {
        const Wire listener = Listener(8);
        std::atomic<bool> opened{false};
        const auto service = std::async(std::launch::async, [&] {
            Serve(Wire(accept4(listener.socket.Get(), nullptr, nullptr, SOCK_CLOEXEC)), script, entry, opened);
        });
        const Reader reader;
        opened = true;
        EXPECT_EQ(0, unlink(SocketPath().c_str()));
        if (reader.error != 0) {
            return std::string("!") + strerrorname_np(reader.error);
        }
        std::string heard;
        std::string last;
        while ((last = reader.Read())[0] != '!') {
            heard += last + ",";
        }
        EXPECT_EQ(last, reader.Read());
        return heard + last;
    }

private:
    static void Serve(Wire wire, const std::string& script, uint64_t entry, const std::atomic<bool>& opened)
    {
        EXPECT_TRUE(wire.Receive());
        int ends[2];
        EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));  // it may block: not the reader's problem
        const UniqueFd bell(ends[0]);
        UniqueFd ringer(ends[1]);
        // Sent with the digits: 0 the bell; 1 the ring, 2 the pool; rings: 3 smaller and 4 larger than announced, 5
        // that can shrink, 6 without seals; pools: 7 that can be written, 8 smaller than announced.
        std::vector<int> sendable{bell.Get()};
        std::vector<Memory> memory;
        constexpr uint64_t R = RING_SIZE, P = POOL_SIZE;
        constexpr int SEALS[] = {SIZE_SEALS,  POOL_SEALS, SIZE_SEALS, SIZE_SEALS,
                                 F_SEAL_GROW, 0,          SIZE_SEALS, POOL_SEALS};
        const int* seals = SEALS;
        for (const uint64_t size : {R, P, R - 8, R + 8, R, R, P, P - 1}) {
            sendable.push_back(memory.emplace_back(size, *seals++).fd.Get());
        }
        auto& ring = *reinterpret_cast<RingHeader*>(memory[0].map.Bytes());
        reinterpret_cast<std::atomic<uint64_t>*>(&ring + 1)[0] = entry;
        memcpy(memory[1].map.Bytes() + 3 * STRIDE, "last", 4);
        // Besides what a Wire can say:
        wire.Say(script, sendable, [&](char letter) {
            switch (letter) {
                case '+':
                    ++ring.appended;
                    break;
                case '-':
                    --ring.appended;
                    break;
                case '#':
                    ring.appended += 9;
                    break;  // more than the ring holds
                case 'b':
                    EXPECT_EQ(1, write(ringer.Get(), "", 1));
                    break;
                case 'N':
                    ringer.Reset();
                    break;
                case 'V':
                    ring.revoked = 1;
                    break;
                case '!':
                    EXPECT_TRUE(Eventually([&] { return opened.load(); }));
                    break;
                case 'z':
                    EXPECT_TRUE(Eventually([&] { return ring.sleeping == 1; }));
                    break;
                case '=':
                    EXPECT_TRUE(Eventually([&] { return ring.consumed == ring.appended; }));
                    break;
            }
        });
        while (wire.Receive()) {
        }  // until the reader is gone
    }
};

TEST_F(HostileServiceTest, OpenFailsInBoundedTimeWithTheRightCauseAndKeepsNothing)
{
    const std::pair<const char*, std::vector<const char*>> cases[] = {
        {"!ETIMEDOUT", {"", "R10"}},
        {"!ECONNREFUSED", {"X", "E", "R10X"}},
        {"!EPROTO", {"J", "L", "m10", "v10", "t10", "f10", "e10", "n10", "o10"}},
        {"!EPROTO", {"R", "R1", "R100", "R30", "R40", "R50", "R60", "R00", "R11"}},
        {"!EPROTO", {"P2", "C", "R10R10", "R10C1", "R10P2P2", "R10P", "R10P7", "R10P8", "R10p2", "R10q2"}},
    };
    for (const auto& [error, scripts] : cases) {
        for (const char* const script : scripts) {
            EXPECT_EQ(error, Heard(script)) << script;
        }
    }
    const Wire full = Listener(0);
    const Wire first(SocketPath());
    EXPECT_EQ(ETIMEDOUT, Reader().error);
    EXPECT_EQ(0, unlink(SocketPath().c_str()));
}

TEST_F(HostileServiceTest, AReadFailsOnWhatMakesNoSenseAndNeverLeavesThePool)
{
    const std::string opened = "R10P2C!";
    EXPECT_EQ(",!EPIPE", Heard(opened + "+bX", PackEntry(3, 0)));
    EXPECT_EQ("last,!EPIPE", Heard(opened + "+bX", PackEntry(3, 4)));
    for (const uint64_t entry :
         {PackEntry(4, 1), PackEntry(UINT32_MAX, 1), PackEntry(0, 65), PackEntry(0, UINT32_MAX)}) {
        EXPECT_EQ("!EPROTO", Heard(opened + "+b", entry)) << entry;
    }
    for (const char* const said : {"#b", "-b", "J", "P2", "R10", "C"}) {
        EXPECT_EQ("!EPROTO", Heard(opened + said)) << said;
    }
    EXPECT_EQ("!ESTALE", Heard(opened + "V+b"));
    for (const char* const said : {"X", "N"}) {
        EXPECT_EQ("!EPIPE", Heard(opened + said)) << said;
    }
    // What was queued before the hang-up is delivered, also when the reader hears of the hang-up first.
    EXPECT_EQ(",!EPIPE", Heard(opened + "z+X"));
    // A count that goes back; and a record before there is a pool.
    EXPECT_EQ(",,!EPROTO", Heard(opened + "++b=-b"));
    EXPECT_EQ("!EPROTO", Heard("R10C+b"));
}

// ---------------------------------------------------------------------------------------------------------------------
// The ring between two that are honest

// Each record is appended just when the reader is about to sleep.
TEST(RingTest, NoReaderSleepsThroughARecord)
{
#ifdef TEST_EMULATED
    GTEST_SKIP() << "qemu-user on x86 lets a load (LDAR) overtake an older store (STLR), as no AArch64 processor does";
#endif
    const Memory memory(RING_SIZE, 0);
    RingWriter writer(Map(memory.fd, RING_SIZE), 8);
    RingReader reader(Map(memory.fd, RING_SIZE), 8);
    constexpr uint32_t RECORDS = 100'000;
    std::atomic<bool> rung{false};
    std::thread reading([&] {
        for (uint32_t n = 0; n < RECORDS && !HasFailure(); reader.WakeUp()) {
            for (volatile uint32_t pause = n % 512; pause > 0;) {
                pause = pause - 1;
            }
            if (reader.Look() == RingReader::State::READY) {
                EXPECT_EQ(PackEntry(n % 8, n), reader.Front());
                reader.Pop();
                ++n;
            } else if (reader.FallAsleep() == RingReader::State::EMPTY) {
                EXPECT_TRUE(Eventually([&] { return rung.exchange(false); })) << n;
            }
        }
    });
    for (uint32_t n = 0; n < RECORDS && !HasFailure(); ++n) {
        if (writer.Append(n % 8, n)) {
            rung = true;
        }
        Eventually([&] { return writer.ClaimedConsumed() > n; });
    }
    reading.join();
}

// ---------------------------------------------------------------------------------------------------------------------
// A hostile reader

// A reader that speaks by hand and has completed the handshake.
struct HandReader : Wire {
    explicit HandReader(const std::string& path) : Wire(path)
    {
        Say("H");
        EXPECT_TRUE(Receive());
        ring = Map(received.at(0), message.bytes);
        Say("Y");
        do {
            EXPECT_TRUE(Receive());
        } while (message.type == uint16_t(MessageType::POOL));
        EXPECT_EQ(uint16_t(MessageType::CONNECTED), message.type);
    }
    RingHeader& Header() const
    {
        return *reinterpret_cast<RingHeader*>(ring.Bytes());
    }

    Mapping ring;
};

class HostileReaderTest : public IamTest {
protected:
    ~HostileReaderTest() override
    {
        ExpectDelivery(publisher, Reader());  // a good one is still served
        EXPECT_EQ(100U, publisher.FreeBlocks());
    }

    Publisher publisher{100};
};

TEST_F(HostileReaderTest, WrongMessagesEndTheConnectionAndNobodyHearsOfIt)
{
    for (const char* const script : {"J", "L", "E", "H0", "Y", "C", "h", "HH", "R00", "HW", "HYJ"}) {
        const Wire wire(SocketPath());
        wire.Say(script, {STDERR_FILENO});
        EXPECT_TRUE(wire.IsHungUp()) << script;
    }
    EXPECT_LE(receiver.opened, 1U);  // the last one got that far
}

TEST_F(HostileReaderTest, IdleConnectionsAreDroppedAndHoldNobodyUp)
{
    std::deque<Wire> idle;
    for (int i = 0; i < 200; ++i) {
        idle.emplace_back(SocketPath()).Say(i % 2 == 0 ? "H" : "");
    }  // and never reads
    ExpectDelivery(publisher, Reader());
    for (const auto& wire : idle) {
        EXPECT_TRUE(wire.IsHungUp());
    }
    EXPECT_EQ(1U, receiver.opened);
}

TEST_F(HostileReaderTest, WhatItWasHandedCannotBeUsedAgainstTheService)
{
    HandReader reader(SocketPath());
    ASSERT_EQ(3U, reader.received.size());  // ring, bell, pool
    const int pool = reader.received[2].Get();
    EXPECT_EQ(MAP_FAILED, mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, pool, 0));
    EXPECT_EQ(-1, fcntl(pool, F_ADD_SEALS, F_SEAL_WRITE));
    for (const int fd : {pool, reader.received[0].Get()}) {
        for (const off_t size : {0, 1 << 24}) {
            EXPECT_EQ(-1, ftruncate(fd, size));
        }
    }
    // The bell: full, blocking as far as its reader can make it, and always due.
    const std::string bell = "/proc/self/fd/" + std::to_string(reader.received[1].Get());
    const UniqueFd filler(open(bell.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    fcntl(reader.received[1].Get(), F_SETPIPE_SZ, 4096);
    fcntl(reader.received[1].Get(), F_SETFL, 0);
    while (write(filler.Get(), "xxxxxxxx", 8) > 0) {
    }
    for (int i = 0; i < 100; ++i) {
        reader.Header().sleeping = 1;
        ASSERT_EQ(0, publisher.Publish(Numbered(1, 300)));
    }
    EXPECT_NE(0, publisher.Publish("full"));
    reader.socket.Reset();  // dead, the bell unread: no SIGPIPE
    EXPECT_TRUE(Eventually([&] { return receiver.closed == 1; }));
}

TEST_F(HostileReaderTest, ScribblingOverItsRingHurtsOnlyItself)
{
    std::mt19937_64 random(11);
    for (int round = 0; round < 60; ++round) {
        HandReader reader(SocketPath());
        ASSERT_EQ(0, publisher.Publish("first"));
        const auto before = Clock::now();
        if (round == 0) {
            reader.Header().consumed = 1000;
        }  // more than it was given
        for (int i = 0; i < 300; ++i) {
            if (round > 0) {
                const size_t word = random() % (round % 2 == 0 ? 80 : reader.ring.Size() / 8);
                reinterpret_cast<std::atomic<uint64_t>*>(reader.ring.Bytes())[word] = random() >> random() % 64;
            }
            publisher.Publish(Numbered(1, 200));
        }
        EXPECT_LT(Clock::now() - before, std::chrono::seconds(1));
        EXPECT_TRUE(round > 0 || reader.IsHungUp());
    }
    EXPECT_TRUE(Eventually([&] { return receiver.closed == 60; }));
}

// ---------------------------------------------------------------------------------------------------------------------
// Another user. The directory keeps such a peer out; here it is let past it.

int InChildOfAnotherUser(const std::function<bool()>& act)
{
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(setresgid(12345, 12345, 12345) == 0 && setresuid(12345, 12345, 12345) == 0 && act() ? 0 : 1);
    }
    return StatusOf(pid);
}

TEST_F(IamTest, APeerOfAnotherUserIsRefused)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    {
        // The user of a listening socket is whoever called listen.
        const Wire listener;
        ASSERT_EQ(0, listener.WithAddress(bind, SocketPath()));
        EXPECT_EQ(0, InChildOfAnotherUser([&] { return listen(listener.socket.Get(), 8) == 0; }));
        EXPECT_EQ(EACCES, Reader().error);
    }
    const Publisher publisher(4);
    chmod(SocketPath().c_str(), 0777);
    const UniqueFd file(open(SocketPath().c_str(), O_PATH | O_CLOEXEC));
    EXPECT_EQ(0, InChildOfAnotherUser([&] {
                  Wire wire("/proc/self/fd/" + std::to_string(file.Get()));
                  wire.Say("H");
                  return wire.IsHungUp() && !wire.Receive();
              }));
    EXPECT_EQ(0U, receiver.opened);
}

}  // namespace
}  // namespace iam_test

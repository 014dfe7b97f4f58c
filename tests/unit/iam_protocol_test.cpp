// Peers that speak the socket protocol by hand and break it: a service that lies to the reader, a reader that lies to
// the service. Neither may crash, block or corrupt the other side.
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <deque>
#include <future>

#include "platform/host/common/Descriptor.h"
#include "platform/host/iam/HostService.h"
#include "platform/host/iam/wire/Protocol.h"
#include "platform/host/iam/wire/Ring.h"
#include "tests/unit/iam_support.h"

namespace iam_test {
namespace {

using namespace host_platform;
using namespace host_platform::iam;

constexpr int READER_SEALS = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
constexpr int SERVICE_SEALS = READER_SEALS | F_SEAL_FUTURE_WRITE;
constexpr uint32_t ENTRIES = 8;
constexpr uint32_t BLOCKS = 4;
constexpr uint32_t STRIDE = 64;
constexpr uint64_t RING_SIZE = RingBytes(ENTRIES);
constexpr uint64_t POOL_SIZE = uint64_t{BLOCKS} * STRIDE;

const Message HELLO = Compose(MessageType::HELLO, 0, static_cast<uint32_t>(Role::READER), 0);
const Message HELLO_OBSERVER = Compose(MessageType::HELLO, 0, static_cast<uint32_t>(Role::OBSERVER), 0);
const Message RING = Compose(MessageType::RING, RING_SIZE, ENTRIES, 0);
const Message READY = Compose(MessageType::READY, 0, 0, 0);
const Message POOL = Compose(MessageType::POOL, POOL_SIZE, BLOCKS, STRIDE);
const Message CONNECTED = Compose(MessageType::CONNECTED, 0, 0, 0);

bool IsSound(const Message& message, size_t size = sizeof(Message))
{
    unsigned char bytes[sizeof(Message) + 1] = {};
    std::memcpy(bytes, &message, sizeof(message));
    return ParseMessage(bytes, size).has_value();
}

TEST(MessageTest, WhatIsNotExactlyOneSoundMessageIsRefused)
{
    for (const Message& message : {HELLO, HELLO_OBSERVER, RING, READY, POOL, CONNECTED}) {
        EXPECT_TRUE(IsSound(message)) << message.type;
        EXPECT_FALSE(IsSound(message, sizeof(Message) - 1)) << message.type;
        EXPECT_FALSE(IsSound(message, sizeof(Message) + 1)) << message.type;
    }
    constexpr uint32_t LARGE = 1U << 31;
    const struct {
        const char* what;
        Message message;
    } rows[] = {
        {"another magic", {1, PROTOCOL_VERSION, RING.type, RING_SIZE, ENTRIES, 0}},
        {"the version before", {PROTOCOL_MAGIC, PROTOCOL_VERSION - 1, RING.type, RING_SIZE, ENTRIES, 0}},
        {"an unknown type", Compose(MessageType{99}, 0, 0, 0)},
        {"HELLO without a role", Compose(MessageType::HELLO, 0, 0, 0)},
        {"HELLO with an unknown role", Compose(MessageType::HELLO, 0, 3, 0)},
        {"HELLO with a size", Compose(MessageType::HELLO, 1, 1, 0)},
        {"READY with a count", Compose(MessageType::READY, 0, 1, 0)},
        {"CONNECTED with a stride", Compose(MessageType::CONNECTED, 0, 0, 1)},
        {"RING with a stride", Compose(MessageType::RING, RING_SIZE, ENTRIES, 1)},
        {"RING with more entries than bytes", Compose(MessageType::RING, RING_SIZE, 2 * ENTRIES, 0)},
        {"RING with fewer entries than bytes", Compose(MessageType::RING, RING_SIZE, ENTRIES / 2, 0)},
        {"RING with one entry", Compose(MessageType::RING, RingBytes(1), 1, 0)},
        {"RING with an odd number of entries", Compose(MessageType::RING, RingBytes(7), 7, 0)},
        {"RING with too many entries", Compose(MessageType::RING, RingBytes(1 << 17), 1 << 17, 0)},
        {"POOL without blocks", Compose(MessageType::POOL, POOL_SIZE, 0, STRIDE)},
        {"POOL without a stride", Compose(MessageType::POOL, POOL_SIZE, BLOCKS, 0)},
        {"POOL with a stride that is not aligned", Compose(MessageType::POOL, POOL_SIZE, BLOCKS, STRIDE - 1)},
        {"POOL with more blocks than bytes", Compose(MessageType::POOL, POOL_SIZE, BLOCKS + 1, STRIDE)},
        {"POOL whose size overflows", Compose(MessageType::POOL, POOL_SIZE, LARGE, LARGE)},
        {"POOL that is too large", Compose(MessageType::POOL, POOL_BYTES_MAX + 1, BLOCKS, STRIDE)},
        {"LISTING with more readers than bytes", Compose(MessageType::LISTING, ListingBytes(1), 2, 0)},
        {"LISTING of too many", Compose(MessageType::LISTING, ListingBytes(1025), 1025, 0)},
    };
    for (const auto& [what, message] : rows) {
        EXPECT_FALSE(IsSound(message)) << what;
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// Ends of a connection

// One end, spoken by hand.
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
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        return call(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
    }
    // Whether the kernel let it pass.
    bool SendBytes(std::string bytes, const std::vector<int>& fds = {}) const
    {
        iovec part{bytes.data(), bytes.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(16 * sizeof(int))] = {};
        msghdr header{nullptr, 0, &part, 1, control, fds.empty() ? 0 : CMSG_SPACE(fds.size() * sizeof(int)), 0};
        if (!fds.empty()) {
            *CMSG_FIRSTHDR(&header) = {CMSG_LEN(fds.size() * sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
            std::memcpy(CMSG_DATA(CMSG_FIRSTHDR(&header)), fds.data(), fds.size() * sizeof(int));
        }
        return sendmsg(socket.Get(), &header, MSG_NOSIGNAL) >= 0;
    }
    bool Send(const Message& message, const std::vector<int>& fds = {}) const
    {
        return SendBytes({reinterpret_cast<const char*>(&message), sizeof(message)}, fds);
    }
    // Waits for one message; false at the end of the connection.
    bool Receive()
    {
        iovec part{&message, sizeof(message)};
        alignas(cmsghdr) char control[CMSG_SPACE(4 * sizeof(int))] = {};
        msghdr header{nullptr, 0, &part, 1, control, sizeof(control), 0};
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
    bool IsHungUp(std::chrono::milliseconds patience = options.patience) const
    {
        pollfd waiting{socket.Get(), POLLRDHUP, 0};
        return poll(&waiting, 1, static_cast<int>(patience.count())) == 1;
    }

    UniqueFd socket;
    Message message{};               // the last one received
    std::vector<UniqueFd> received;  // all descriptors
};

Mapping Map(const UniqueFd& memory, size_t size)
{
    void* const address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, memory.Get(), 0);
    return Mapping(static_cast<unsigned char*>(address), Unmap{size});
}

struct MemoryShape {
    size_t size;
    int seals;
};

struct Memory {
    explicit Memory(const MemoryShape& shape) : fd(memfd_create("unit", MFD_ALLOW_SEALING | MFD_CLOEXEC))
    {
        EXPECT_EQ(0, ftruncate(fd.Get(), static_cast<off_t>(shape.size)));
        map = Map(fd, shape.size);
        EXPECT_EQ(0, fcntl(fd.Get(), F_ADD_SEALS, shape.seals));
    }
    UniqueFd fd;
    Mapping map;
};

// ---------------------------------------------------------------------------------------------------------------------
// A hostile service

// The service's end of one reader's connection.
struct ServiceByHand : Wire {
    using Wire::Wire;

    ServiceWords& Words()
    {
        return *reinterpret_cast<ServiceWords*>(sent.at(0).map.get());
    }
    const ReaderWords& WordsOfReader()
    {
        return *reinterpret_cast<const ReaderWords*>(sent.at(1).map.get());
    }

    std::deque<Memory> sent;  // the two of the ring, then the pool
};

// What it does, step by step.
using Step = std::function<void(ServiceByHand&)>;

constexpr MemoryShape SERVICES{RING_SIZE, SERVICE_SEALS};
constexpr MemoryShape READERS{READER_WORDS_BYTES, READER_SEALS};
constexpr MemoryShape BLOCKS_OF_POOL{POOL_SIZE, SERVICE_SEALS};

Step Say(const Message& message, const std::vector<MemoryShape>& memories)
{
    return [=](ServiceByHand& service) {
        std::vector<int> fds;
        for (const MemoryShape& shape : memories) {
            fds.push_back(service.sent.emplace_back(shape).fd.Get());
        }
        service.Send(message, fds);
    };
}
Step SayBytes(const std::string& bytes)
{
    return [=](ServiceByHand& service) { service.SendBytes(bytes); };
}
Step SetAppended(uint32_t count)
{
    return [=](ServiceByHand& service) { service.Words().appended = count; };
}
Step Append(uint64_t entry)
{
    return [=](ServiceByHand& service) {
        auto* const entries = reinterpret_cast<std::atomic<uint64_t>*>(&service.Words() + 1);
        entries[service.Words().appended++ % ENTRIES] = entry;
    };
}
Step AwaitConsumed(uint32_t count)
{
    return [=](ServiceByHand& service) {
        EXPECT_TRUE(Eventually([&] { return service.WordsOfReader().consumed == count; }));
    };
}
const Step ring = Say(RING, {SERVICES, READERS});
const Step pool = Say(POOL, {BLOCKS_OF_POOL});
const Step connected = Say(CONNECTED, {});
const Step wake = [](ServiceByHand& service) { WakeSleepers(&service.Words().appended); };
const Step hangUp = [](ServiceByHand& service) { shutdown(service.socket.Get(), SHUT_RDWR); };
const Step revoke = [](ServiceByHand& service) { service.Words().revoked = 1; };
const Step hear = [](ServiceByHand& service) { EXPECT_TRUE(service.Receive()); };
const Step awaitSleep = [](ServiceByHand& service) {
    EXPECT_TRUE(Eventually([&] { return service.WordsOfReader().sleeping != 0; }));
};

class HostileServiceTest : public IamTest {
protected:
    Wire Listener(int backlog) const
    {
        Wire listener;
        EXPECT_EQ(0, listener.WithAddress(bind, SocketPath()));
        EXPECT_EQ(0, listen(listener.socket.Get(), backlog));
        return listener;
    }
    // Does this to whoever connects first, and waits until it is gone.
    static std::future<void> Answer(const Wire& listener, const std::vector<Step>& steps)
    {
        return std::async(std::launch::async, [&listener, steps] {
            ServiceByHand hand(accept4(listener.socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            for (const Step& step : steps) {
                step(hand);
            }
            while (hand.Receive()) {
            }
        });
    }
    // What a reader gets from a service that does this: the error of its open, or all that it reads up to an error,
    // which must stay.
    std::string Heard(const std::vector<Step>& steps) const
    {
        const Wire listener = Listener(8);
        const auto service = Answer(listener, steps);
        const Reader reader;
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
    void ExpectHeard(const std::vector<std::pair<std::string, std::vector<Step>>>& rows) const
    {
        for (size_t row = 0; row < rows.size(); ++row) {
            EXPECT_EQ(rows[row].first, Heard(rows[row].second)) << "row " << row;
        }
    }
};

TEST_F(HostileServiceTest, OpenFailsInBoundedTimeWithTheRightCauseAndKeepsNothing)
{
    ExpectHeard({
        {"!ETIMEDOUT", {ring}},
        {"!ECONNREFUSED", {ring, hangUp}},
        {"!EPROTO", {SayBytes(std::string(100000, 'R'))}},
        {"!EPROTO", {Say(RING, {SERVICES})}},
        {"!EPROTO", {Say(RING, {SERVICES, READERS, BLOCKS_OF_POOL})}},
        {"!EPROTO", {Say(RING, {{RING_SIZE, READER_SEALS}, READERS})}},
        {"!EPROTO", {Say(RING, {{RING_SIZE, SERVICE_SEALS & ~F_SEAL_SHRINK}, READERS})}},
        {"!EPROTO", {Say(RING, {{RING_SIZE - 8, SERVICE_SEALS}, READERS})}},
        {"!EPROTO", {Say(RING, {{RING_SIZE + 8, SERVICE_SEALS}, READERS})}},
        {"!EPROTO", {Say(RING, {SERVICES, {READER_WORDS_BYTES - 8, READER_SEALS}})}},
        {"!EPROTO", {pool}},
        {"!EPROTO", {connected}},
        {"!EPROTO", {ring, ring}},
        {"!EPROTO", {ring, pool, pool}},
        {"!EPROTO", {ring, Say(POOL, {{POOL_SIZE - 1, SERVICE_SEALS}})}},
        {"!EPROTO", {ring, Say(POOL, {{POOL_SIZE, READER_SEALS}})}},
    });
    // One that accepts nobody: it lives, whether there is room for one more or not.
    const Wire full = Listener(1);
    const Wire first(SocketPath());
    EXPECT_EQ(-EBUSY, Publisher().Serve());
    EXPECT_EQ(ETIMEDOUT, Reader().error);
    EXPECT_EQ(-EBUSY, Publisher().Serve());
    EXPECT_EQ(0, unlink(SocketPath().c_str()));
}

TEST_F(HostileServiceTest, AReadFailsOnWhatMakesNoSenseAndNeverLeavesThePool)
{
    const Step connect = [](ServiceByHand& service) {
        for (const Step& step : {ring, pool, connected, hear, hear}) {
            step(service);
        }
        std::memcpy(service.sent.at(2).map.get() + (BLOCKS - 1) * STRIDE, "last", 4);
    };
    ExpectHeard({
        {",!EPIPE", {connect, Append(PackEntry(BLOCKS - 1, 0)), hangUp}},
        {"last,!EPIPE", {connect, Append(PackEntry(BLOCKS - 1, 4)), hangUp}},
        {"!EPROTO", {connect, Append(PackEntry(BLOCKS, 1)), wake}},
        {"!EPROTO", {connect, Append(PackEntry(0, STRIDE + 1)), wake}},
        {"!EPROTO", {connect, SetAppended(ENTRIES + 1), wake}},
        {",,!EPROTO", {connect, SetAppended(2), wake, AwaitConsumed(2), awaitSleep, SetAppended(1), wake}},
        {"!EPROTO", {connect, SayBytes("junk")}},
        {"!EPROTO", {connect, pool}},
        {"!EPROTO", {connect, connected}},
        {"!EPROTO", {ring, connected, Append(0), wake}},  // before there is a pool
        // The pool comes while the reader sleeps, and the first record right behind it.
        {",!EPIPE", {ring, connected, awaitSleep, pool, Append(0), wake, AwaitConsumed(1), hangUp}},
        // What was queued before the hang-up is delivered, also when the reader hears of the hang-up first.
        {"!EPIPE", {connect, awaitSleep, hangUp}},
        {",!EPIPE", {connect, awaitSleep, Append(0), hangUp}},
        // It has lost its place, not its service.
        {"!ESTALE", {connect, revoke, Append(PackEntry(BLOCKS - 1, 4)), wake}},
        {"!ESTALE", {connect, awaitSleep, revoke, hangUp}},
    });
}

// ---------------------------------------------------------------------------------------------------------------------
// Listing

// What IAMHostList visits, one line for each resource.
std::vector<std::string> Listed()
{
    std::vector<std::string> lines;
    const auto visit = [](const IAMHostResource* resource, void* context) {
        const std::string answer = resource->answers != 0 ? " answers" : " does not answer";
        static_cast<std::vector<std::string>*>(context)->push_back(resource->name + answer);
    };
    const auto begin = Clock::now();
    EXPECT_EQ(0, IAMHostList(visit, &lines));
    EXPECT_LT(Clock::now() - begin, Reader::openBound);
    return lines;
}

TEST_F(HostileServiceTest, AListingTellsWhoAnswersAndWaitsForNobodyForLong)
{
    using Lines = std::vector<std::string>;
    EXPECT_EQ(-EINVAL, IAMHostList(nullptr, nullptr));
    EXPECT_EQ(Lines(), Listed());
    const std::string honest = "x:/res/unit/a.b answers";
    const std::string silent = std::string(NAME) + " does not answer";
    const Publisher publisher(4, "x:/res/unit/a.b");
    EXPECT_EQ(Lines{honest}, Listed());
    // Others: nothing at all, a wrong message, a hang-up; one that accepts nobody; and what is no service.
    const Message listing = Compose(MessageType::LISTING, ListingBytes(1), 1, 0);
    const std::vector<Step> answers[] = {{hear}, {hear, Say(CONNECTED, {})}, {hear, Say(listing, {})}, {hear, hangUp}};
    for (const auto& steps : answers) {
        const Wire listener = Listener(8);
        const auto service = Answer(listener, steps);
        EXPECT_EQ((Lines{silent, honest}), Listed());
        EXPECT_EQ(0, unlink(SocketPath().c_str()));
    }
    const std::string foreign = directory + "/x%3A%2fres%2Fb";  // not spelt as libiam does
    {
        const Wire full = Listener(0);
        const Wire first(SocketPath());
        const Wire other;
        EXPECT_EQ(0, other.WithAddress(bind, foreign));
        EXPECT_EQ(0, listen(other.socket.Get(), 1));
        EXPECT_EQ((Lines{silent, honest}), Listed());
    }
    EXPECT_EQ(Lines{honest}, Listed());  // what they left behind serves nobody
    EXPECT_EQ(0, unlink(SocketPath().c_str()));
    EXPECT_EQ(0, unlink(foreign.c_str()));
}

// ---------------------------------------------------------------------------------------------------------------------
// A hostile reader

// A reader that speaks by hand and has completed the handshake.
struct ReaderByHand : Wire {
    explicit ReaderByHand(const std::string& path, const Message& hello = HELLO) : Wire(path)
    {
        Send(hello);
        EXPECT_TRUE(Receive());
        own = Map(received.at(1), READER_WORDS_BYTES);
        Send(READY);
        do {
            EXPECT_TRUE(Receive());
        } while (message.type == POOL.type);
        EXPECT_EQ(CONNECTED.type, message.type);
    }
    ReaderWords& Words() const
    {
        return *reinterpret_cast<ReaderWords*>(own.get());
    }

    Mapping own;
};

class HostileReaderTest : public IamTest {
protected:
    ~HostileReaderTest() override
    {
        ExpectDelivery(publisher, Reader());  // a good one is still served
        EXPECT_EQ(BLOCKS, publisher.FreeBlocks());
    }

    static constexpr size_t BLOCKS = 100;
    Publisher publisher{BLOCKS};
};

TEST_F(HostileReaderTest, WrongMessagesEndTheConnectionAndNobodyHearsOfIt)
{
    const auto bytesOf = [](const Message& message) {
        return std::string(reinterpret_cast<const char*>(&message), sizeof(message));
    };
    const std::string hello = bytesOf(HELLO);
    const std::string ready = bytesOf(READY);
    const std::vector<std::string> conversations[] = {
        {std::string(100000, 'R')}, {hello + "R"}, {""}, {ready}, {bytesOf(CONNECTED)}, {hello, hello},
        {hello, ready, "junk"},
    };
    for (const auto& conversation : conversations) {
        const Wire wire(SocketPath());
        for (const std::string& bytes : conversation) {
            wire.SendBytes(bytes);
        }
        // Sooner than one that is merely idle.
        EXPECT_TRUE(wire.IsHungUp(std::chrono::milliseconds(1500))) << conversation[0] << conversation.size();
    }
    EXPECT_LE(receiver->opened, 1U);  // the last one got that far
    const Wire half(SocketPath());
    half.Send(HELLO);
    shutdown(half.socket.Get(), SHUT_WR);
    EXPECT_TRUE(half.IsHungUp());
    // A descriptor is refused by the kernel where it can be, else by the service.
    constexpr int PASS_RIGHTS = 83;
    const int off = 0;
    const Wire passing(SocketPath());
    const bool kernelCan = setsockopt(passing.socket.Get(), SOL_SOCKET, PASS_RIGHTS, &off, sizeof(off)) == 0;
    EXPECT_EQ(kernelCan, !passing.Send(HELLO, {STDERR_FILENO}));
    EXPECT_TRUE(kernelCan || passing.IsHungUp());
}

TEST_F(HostileReaderTest, IdleConnectionsAreDroppedAndHoldNobodyUp)
{
    std::deque<Wire> idle;
    for (int i = 0; i < 200; ++i) {  // and never reads
        idle.emplace_back(SocketPath());
        if (i % 2 == 0) {
            idle.back().Send(HELLO);
        }
    }
    ExpectDelivery(publisher, Reader());
    for (const auto& wire : idle) {
        EXPECT_TRUE(wire.IsHungUp());
    }
    EXPECT_EQ(1U, receiver->opened);
}

TEST_F(HostileReaderTest, WhatItWasHandedCannotBeUsedAgainstTheService)
{
    ReaderByHand reader(SocketPath());
    ASSERT_EQ(3U, reader.received.size());  // the service's memory, its own, the pool
    for (const size_t sealed : {0, 2}) {
        const int fd = reader.received[sealed].Get();
        EXPECT_EQ(MAP_FAILED, mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        EXPECT_EQ(-1, fcntl(fd, F_ADD_SEALS, F_SEAL_WRITE));
        EXPECT_EQ(-1, fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, 4096));
    }
    for (const auto& memory : reader.received) {
        EXPECT_EQ(-1, ftruncate(memory.Get(), 0));
        EXPECT_EQ(-1, ftruncate(memory.Get(), 1 << 24));
    }
    // Always asleep where the next record comes, with a hole under it again and again.
    for (uint32_t i = 0; i < 100; ++i) {
        EXPECT_EQ(0, fallocate(reader.received[1].Get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, 4096));
        reader.Words().sleeping = SleepMark(i);
        ASSERT_EQ(0, publisher.Publish(Numbered(1, 300)));
    }
    EXPECT_NE(0, publisher.Publish("full"));
    reader.socket.Reset();
    EXPECT_TRUE(Eventually([&] { return receiver->closed == 1; }));
}

// A reader, then an observer beside another reader claim to have read more than they were given.
TEST_F(HostileReaderTest, OneThatScribblesOverItsRingIsCutOffAndOthersMissNothing)
{
    {
        const ReaderByHand reader(SocketPath());
        reader.Words().consumed = 1000;
        size_t accepted = 0;
        while (publisher.Publish("lost with it") == 0) {
            ++accepted;
        }
        EXPECT_EQ(BLOCKS, accepted);  // none that it could not get any more
        EXPECT_TRUE(reader.IsHungUp());
    }
    EXPECT_TRUE(Eventually([&] { return receiver->closed == 1; }));
    const Reader reader;
    const ReaderByHand observer(SocketPath(), HELLO_OBSERVER);
    observer.Words().consumed = 1000;
    for (int round = 0; round < 3; ++round) {
        publisher.PublishNumbered(100, 20);
        reader.ExpectNumbered(100, 20);
    }
    EXPECT_TRUE(observer.IsHungUp());
    EXPECT_EQ(1U, receiver->closed);
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
        EXPECT_EQ(0, unlink(SocketPath().c_str()));
    }
    const Publisher publisher(4);
    chmod(SocketPath().c_str(), 0777);
    const UniqueFd file(open(SocketPath().c_str(), O_PATH | O_CLOEXEC));
    EXPECT_EQ(0, InChildOfAnotherUser([&] {
                  Wire wire("/proc/self/fd/" + std::to_string(file.Get()));
                  wire.Send(HELLO);
                  return wire.IsHungUp() && !wire.Receive();
              }));
    EXPECT_EQ(0U, receiver->opened);
}

}  // namespace
}  // namespace iam_test

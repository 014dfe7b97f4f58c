// iceoryx: publisher and subscriber with a pool of chunks in shared memory. Its daemon runs for this program alone: in
// a mount namespace of its own, with a /tmp and a /dev/shm that vanish with it.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iceoryx_hoofs/log/logmanager.hpp>
#include <iceoryx_posh/popo/untyped_publisher.hpp>
#include <iceoryx_posh/popo/untyped_subscriber.hpp>
#include <iceoryx_posh/popo/wait_set.hpp>
#include <iceoryx_posh/runtime/posh_runtime.hpp>
#include <stdexcept>
#include <string>
#include <utility>

#include "benchmarks/peers/Transport.h"

namespace bench {
namespace {

constexpr const char* CONFIGURATION_FILE = "/tmp/iox-roudi.toml";
// One pool for records of every size, as many chunks as the road has blocks.
constexpr const char* CONFIGURATION =
    "[general]\nversion = 1\n[[segment]]\n[[segment.mempool]]\nsize = 4096\ncount = 1000\n";
constexpr uint64_t QUEUE = 256;  // the longest
constexpr const char* READY_LINE = "ready for clients";
constexpr useconds_t LOOK_EVERY_US = 1000;

void WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream file(path);
    if (!(file << text << std::flush)) {
        throw Unavailable("cannot write " + path);
    }
}

// Needs the right to mount; a user without it gets it in a user namespace, where the system allows those.
void EnterPrivateNamespace()
{
    const std::string user = std::to_string(getuid());
    const std::string group = std::to_string(getgid());
    if (unshare(CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            throw Unavailable("no mount namespace: " + std::generic_category().message(errno));
        }
        WriteFile("/proc/self/setgroups", "deny");
        WriteFile("/proc/self/uid_map", user + " " + user + " 1");
        WriteFile("/proc/self/gid_map", group + " " + group + " 1");
    }
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) != 0 || mount("tmpfs", "/dev/shm", "tmpfs", 0, nullptr) != 0) {
        throw Unavailable("cannot mount a private /tmp: " + std::generic_category().message(errno));
    }
}

// The daemon, ready for clients once this is made. It has nothing to clean up that does not vanish with the namespace.
class Daemon {
public:
    Daemon()
    {
        EnterPrivateNamespace();
        WriteFile(CONFIGURATION_FILE, CONFIGURATION);
        int fds[2];
        Check(pipe2(fds, O_CLOEXEC), "pipe2");
        output_ = FileDescriptor(fds[0]);
        const FileDescriptor theirs(fds[1]);
        pid_ = Check(fork(), "fork");
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(theirs.Get(), STDOUT_FILENO);
            dup2(theirs.Get(), STDERR_FILENO);
            execlp("iox-roudi", "iox-roudi", "-m", "off", "-l", "error", "-c", CONFIGURATION_FILE, nullptr);
            std::perror("iox-roudi");
            _exit(EXIT_FAILURE);
        }
    }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    ~Daemon()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }

    void AwaitReady()
    {
        std::string said;
        char part[256];
        while (said.find(READY_LINE) == std::string::npos) {
            const ssize_t got = Check(read(output_.Get(), part, sizeof(part)), "read");
            if (got == 0) {
                throw Unavailable("the daemon does not start: " + said.substr(0, said.find('\n')));
            }
            said.append(part, static_cast<size_t>(got));
        }
    }

private:
    FileDescriptor output_;  // stays open: the daemon may say more
    pid_t pid_ = -1;
};

const iox::capro::ServiceDescription SERVICE{"Report", "Event", "Record"};

// This process as a client of the daemon: made before its publisher or subscriber.
struct Client {
    explicit Client(const iox::RuntimeName_t& name)
    {
        iox::log::LogManager::GetLogManager().SetDefaultLogLevel(iox::log::LogLevel::kError,
                                                                 iox::log::LogLevelOutput::kHideLogLevel);
        iox::runtime::PoshRuntime::initRuntime(name);
    }
};

class ChunkSender : public Sender {
public:
    explicit ChunkSender(const Daemon&)
    {
        while (!publisher_.hasSubscribers()) {
            usleep(LOOK_EVERY_US);
        }
    }
    ~ChunkSender() override
    {
        Send(reinterpret_cast<const unsigned char*>(""), 0);  // an empty chunk ends the stream
    }
    void Send(const unsigned char* data, size_t size) override
    {
        auto chunk = publisher_.loan(static_cast<uint32_t>(size));
        if (chunk.has_error()) {
            throw std::runtime_error("no chunk to be had");
        }
        std::memcpy(chunk.value(), data, size);
        publisher_.publish(chunk.value());
    }

private:
    const Client client_{"sender"};
    iox::popo::UntypedPublisher publisher_{SERVICE, {0, "", true, iox::popo::ConsumerTooSlowPolicy::WAIT_FOR_CONSUMER}};
};

class ChunkReceiver : public Receiver {
public:
    explicit ChunkReceiver(const Daemon&)
    {
        waitSet_.attachState(subscriber_, iox::popo::SubscriberState::HAS_DATA).or_else([](auto) {
            throw std::runtime_error("cannot wait for the subscriber");
        });
    }
    size_t Receive(unsigned char* buffer, size_t capacity) override
    {
        auto chunk = subscriber_.take();
        while (chunk.has_error()) {
            if (chunk.get_error() != iox::popo::ChunkReceiveResult::NO_CHUNK_AVAILABLE) {
                throw std::runtime_error("cannot take a chunk");
            }
            waitSet_.wait();
            chunk = subscriber_.take();
        }
        const size_t size = iox::mepoo::ChunkHeader::fromUserPayload(chunk.value())->userPayloadSize();
        if (size > capacity) {
            throw std::runtime_error("a record does not fit");
        }
        std::memcpy(buffer, chunk.value(), size);
        subscriber_.release(chunk.value());
        return size;
    }

private:
    const Client client_{"receiver"};
    iox::popo::UntypedSubscriber subscriber_{SERVICE, {QUEUE, 0, "", true, iox::popo::QueueFullPolicy::BLOCK_PRODUCER}};
    iox::popo::WaitSet<1> waitSet_;
};

}  // namespace

std::unique_ptr<Transport> MakeIceoryx(size_t)
{
    // Older than the receiver's connection to the daemon, so that it ends after that.
    static Daemon daemon;
    daemon.AwaitReady();
    return std::make_unique<TransportOf<ChunkSender, ChunkReceiver, Daemon&>>(daemon);
}

}  // namespace bench

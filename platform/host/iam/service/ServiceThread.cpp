#include "platform/host/iam/service/ServiceThread.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <utility>

#include "platform/host/iam/Log.h"
#include "platform/host/iam/service/Handles.h"
#include "platform/host/iam/service/Service.h"

namespace host_platform::iam {
namespace {

using namespace std::chrono_literals;

// A reader gives up after one second; one that has not said what it must after two is none.
constexpr auto HANDSHAKE_TIME = 2s;
constexpr auto ACCEPT_PAUSE = 100ms;
constexpr int LOOK_AGAIN_MS = 50;  // while one of the two runs
constexpr int ACCEPTS_AT_ONCE = 16;

// What epoll returns for a descriptor: one of these, or a reader's handle, which never has so many bits.
constexpr uint64_t WAKE_KEY = UINT64_MAX;
constexpr uint64_t LISTENER_KEY = UINT64_MAX - 1;
constexpr uint64_t FILES_KEY = UINT64_MAX - 2;

thread_local bool onServiceThread = false;

int Control(const UniqueFd& epoll, int operation, int fd, uint32_t events, uint64_t key)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = key;
    return epoll_ctl(epoll.Get(), operation, fd, &event);
}

bool OutOfResources(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

const char* HandshakeIsLate(const Reader& reader)
{
    const bool late = reader.stage != Reader::Stage::CONNECTED && Clock::now() - reader.accepted >= HANDSHAKE_TIME;
    return late ? "it did not complete the handshake in time" : nullptr;
}

const char* IsCutOff(const Reader& reader)
{
    return reader.cutOffCause;
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------------------
// For other threads

Status ServiceThread::Start()
{
    if (thread_.Runs()) {
        return {};
    }
    epoll_ = AboveStandard(epoll_create1(EPOLL_CLOEXEC));
    wake_ = AboveStandard(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!epoll_ || !wake_ || Control(epoll_, EPOLL_CTL_ADD, wake_.Get(), EPOLLIN, WAKE_KEY) != 0) {
        return {errno, "the service thread cannot be set up"};
    }
    notice_ = AboveStandard(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (notice_) {
        Control(epoll_, EPOLL_CTL_ADD, notice_.Get(), EPOLLIN, FILES_KEY);
    }
    const auto run = [](void* thread) -> void* {
        static_cast<ServiceThread*>(thread)->Run();
        return nullptr;
    };
    return thread_.Start("iam-service", run, this);
}

Status ServiceThread::Watch(const Endpoint& endpoint)
{
    if (notice_) {
        endpoint.Watch(notice_.Get());
    }
    return Check(Control(epoll_, EPOLL_CTL_ADD, endpoint.Listener(), EPOLLIN, LISTENER_KEY) == 0,
                 "its socket cannot be watched");
}

void ServiceThread::Wake() const
{
    const uint64_t one = 1;
    while (write(wake_.Get(), &one, sizeof(one)) < 0 && errno == EINTR) {
    }
}

bool ServiceThread::IsCurrentThread()
{
    return onServiceThread;
}

// ---------------------------------------------------------------------------------------------------------------------
// The thread

void ServiceThread::Run()
{
    onServiceThread = true;
    epoll_event events[64];
    for (;;) {
        const bool timeRuns = handshakes_ != 0 || paused_;
        const int count = epoll_wait(epoll_.Get(), events, std::size(events), timeRuns ? LOOK_AGAIN_MS : -1);
        for (int i = 0; i < count; ++i) {
            Dispatch(events[i].data.u64, events[i].events);
        }
        if (handshakes_ != 0) {
            CloseThose(HandshakeIsLate);
        }
        if (paused_ && Clock::now() >= resumeAt_) {
            Listen(true);
        }
        if (std::exchange(woken_, false)) {
            CloseThose(IsCutOff);
            FinishEnd();
        }
    }
}

void ServiceThread::Dispatch(uint64_t key, uint32_t events)
{
    if (key == WAKE_KEY) {
        uint64_t count = 0;
        while (read(wake_.Get(), &count, sizeof(count)) < 0 && errno == EINTR) {
        }
        woken_ = true;
    } else if (key == LISTENER_KEY) {
        AcceptReaders();
    } else if (key == FILES_KEY) {
        HearOfFiles();
    } else {
        Reader* const reader = service_.ReaderAt(IndexOf(key));
        if (reader != nullptr && reader->Handle() == key) {  // else an earlier event of the same batch ended it
            Hear(*reader, events);
        }
    }
}

void ServiceThread::HearOfFiles()
{
    alignas(inotify_event) char events[1024];
    while (read(notice_.Get(), events, sizeof(events)) > 0) {
    }
    const Endpoint* const endpoint = service_.CurrentEndpoint();
    if (endpoint != nullptr && endpoint->IsGone() && !std::exchange(socketGone_, true)) {
        IAM_LOG("%s: its socket %s is gone, readers do not find it any more: start it again", service_.Name(),
                endpoint->SocketPath());
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// Accepting

void ServiceThread::AcceptReaders()
{
    const Endpoint* const endpoint = service_.CurrentEndpoint();
    for (int i = 0; i < ACCEPTS_AT_ONCE && endpoint != nullptr; ++i) {
        UniqueFd socket = AboveStandard(accept4(endpoint->Listener(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket) {
            Admit(std::move(socket));
        } else if (OutOfResources(errno)) {
            // The waiting readers stay in the backlog; without the pause this thread would spin on them.
            IAM_LOG("%s: readers must wait: %s", service_.Name(), strerrordesc_np(errno));
            Listen(false);
            return;
        } else if (errno != ECONNABORTED && errno != EINTR) {
            return;  // EAGAIN: nobody waits
        }
    }
}

void ServiceThread::Admit(UniqueFd socket)
{
    int pid = 0;
    const int fd = socket.Get();
    const Status peer = CheckPeerUser(socket, pid);
    std::unique_ptr<Reader> reader(new (std::nothrow) Reader(std::move(socket), pid));
    Reader* const added = reader.get();
    const Status status = peer.Then([&] {
        return added != nullptr ? service_.Add(std::move(reader)) : Status{ENOMEM, "out of memory"};
    });
    if (status.Failed()) {
        IAM_LOG("%s: a connection of process %d was refused: %s", service_.Name(), pid, status.cause);
        return;
    }
    ++handshakes_;
    if (Control(epoll_, EPOLL_CTL_ADD, fd, EPOLLIN | EPOLLRDHUP, added->Handle()) != 0) {
        Close(*added, "it cannot be watched");
    }
}

void ServiceThread::Listen(bool on)
{
    paused_ = !on;
    resumeAt_ = Clock::now() + ACCEPT_PAUSE;
    const Endpoint* const endpoint = service_.CurrentEndpoint();
    if (endpoint != nullptr) {
        const uint32_t events = on ? EPOLLIN : 0U;
        Control(epoll_, EPOLL_CTL_MOD, endpoint->Listener(), events, LISTENER_KEY);
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// One reader

void ServiceThread::Hear(Reader& reader, uint32_t events)
{
    ReceivedMessage received;
    Status status = ReceiveMessage(reader.socket, received);
    if (status.error == EAGAIN) {
        return;
    }
    if (!status.Failed() && (events & (EPOLLHUP | EPOLLRDHUP | EPOLLERR)) != 0) {
        status = {EPIPE, nullptr};  // whatever it said, it has left already
    }
    if (!status.Failed()) {
        status = Advance(reader, received);
    }
    if (status.Failed()) {
        Close(reader, status.error == EPIPE ? nullptr : status.cause);  // that one has left is everyday news
    }
}

Status ServiceThread::Advance(Reader& reader, const ReceivedMessage& received)
{
    if (reader.stage == Reader::Stage::AWAIT_HELLO && received.type == MessageType::HELLO) {
        reader.stage = Reader::Stage::AWAIT_READY;
        reader.role = static_cast<Role>(received.message.count);
        return reader.Offer();
    }
    if (reader.stage == Reader::Stage::AWAIT_READY && received.type == MessageType::READY) {
        return Greet(reader);
    }
    if (reader.stage == Reader::Stage::AWAIT_HELLO && received.type == MessageType::LIST) {
        return Answer(reader);
    }
    return {EPROTO, "it sent a message out of turn"};
}

Status ServiceThread::Answer(const Reader& asking)
{
    ListingPacket packet;
    const uint32_t count = service_.List(packet.readers);
    packet.header = Compose(MessageType::LISTING, ListingBytes(count), count, 0);
    send(asking.socket.Get(), &packet, ListingBytes(count), MSG_DONTWAIT | MSG_NOSIGNAL);
    return {EPIPE, nullptr};  // that was all
}

Status ServiceThread::Greet(Reader& reader)
{
    const Status attached = service_.Attach(reader);
    if (attached.Failed()) {
        return attached;
    }
    reader.stage = Reader::Stage::CONNECTED;
    --handshakes_;
    if (reader.role == Role::READER) {
        const IAMFileOperations operations = service_.Notifications();
        if (operations.open != nullptr) {
            operations.open(&reader.file);
        }
        // After the notification, so that the reader before it is not held to be superseded while the publisher still
        // publishes to it.
        service_.MakeCurrent(reader);
    }
    // The reader's open returns on this message: whatever is published from then on finds it known.
    return SendMessage(reader.socket, Compose(MessageType::CONNECTED, 0, 0, 0));
}

void ServiceThread::Close(Reader& reader, const char* cause)
{
    if (reader.stage != Reader::Stage::CONNECTED) {
        --handshakes_;
    } else if (reader.role == Role::READER) {
        const IAMFileOperations operations = service_.Notifications();
        if (operations.close != nullptr) {
            operations.close(&reader.file);
        }
    }
    const std::unique_ptr<Reader> gone = service_.Remove(reader);
    cause = gone->cutOffCause != nullptr ? gone->cutOffCause.load() : cause;
    if (cause != nullptr) {
        IAM_LOG("%s: the connection of process %d was closed: %s", service_.Name(), gone->pid, cause);
    }
    // Said explicitly: a child of fork that has not called exec yet holds the same socket. After the removal, which
    // tells a reader that loses its blocks by more than the hang-up.
    shutdown(gone->socket.Get(), SHUT_RDWR);
    Control(epoll_, EPOLL_CTL_DEL, gone->socket.Get(), 0, 0);
}

void ServiceThread::CloseThose(const char* (*cause)(const Reader& reader))
{
    for (size_t index = 0; index < READER_LIMIT; ++index) {
        Reader* const reader = service_.ReaderAt(index);
        const char* const found = reader != nullptr ? cause(*reader) : nullptr;
        if (found != nullptr) {
            Close(*reader, found);
        }
    }
}

void ServiceThread::FinishEnd()
{
    if (!service_.IsEnding()) {
        return;
    }
    socketGone_ = false;
    std::array<Reader*, READER_LIMIT> readers{};
    for (size_t index = 0; index < readers.size(); ++index) {
        readers[index] = service_.ReaderAt(index);
    }
    // Notifications come in the order of the opens.
    auto* const end = std::remove(readers.begin(), readers.end(), nullptr);
    std::sort(readers.begin(), end,
              [](const Reader* a, const Reader* b) { return UseOf(a->Handle()) < UseOf(b->Handle()); });
    std::for_each(readers.begin(), end, [this](Reader* reader) { Close(*reader, nullptr); });
    const Endpoint* const endpoint = service_.CurrentEndpoint();
    if (endpoint != nullptr) {
        Control(epoll_, EPOLL_CTL_DEL, endpoint->Listener(), 0, 0);
    }
    service_.FinishEnd();
}

}  // namespace host_platform::iam

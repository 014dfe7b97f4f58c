#include "platform/host/iam/service/ServiceThread.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <new>
#include <utility>

#include "platform/host/iam/Log.h"
#include "platform/host/iam/Messages.h"
#include "platform/host/iam/service/Handles.h"

namespace host_platform::iam {
namespace {

using namespace std::chrono_literals;

// A reader gives up after one second; one that has not said what it must after two is none.
constexpr auto HANDSHAKE_TIME = 2s;
constexpr auto ACCEPT_PAUSE = 100ms;
constexpr int ACCEPTS_AT_ONCE = 16;
constexpr size_t CONNECTION_LIMIT = 2048;

// What epoll returns for a descriptor: a connection's id, a service's number with a mark, or the wake-up.
constexpr uint64_t LISTENER_MARK = uint64_t{1} << 63;
constexpr uint64_t WAKE_KEY = ~uint64_t{0};

int Control(int epoll, int operation, int fd, uint32_t events, uint64_t key)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = key;
    return epoll_ctl(epoll, operation, fd, &event);
}

bool OutOfResources(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// The process's signals are for its own threads. The new thread inherits the mask.
class SignalsBlocked {
public:
    SignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked()
    {
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before_{};
};

}  // namespace

ServiceThread& ServiceThread::Instance()
{
    static auto* const thread = new ServiceThread;
    return *thread;
}

// ---------------------------------------------------------------------------------------------------------------------
// For other threads

Status ServiceThread::Start()
{
    const MutexLock lock(mutex_);
    if (started_) {
        return {};
    }
    epoll_ = AboveStandard(epoll_create1(EPOLL_CLOEXEC));
    wake_ = AboveStandard(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!epoll_ || !wake_ || Control(epoll_.Get(), EPOLL_CTL_ADD, wake_.Get(), EPOLLIN, WAKE_KEY) != 0) {
        return {errno, "the service thread cannot be set up"};
    }
    process_ = getpid();
    const SignalsBlocked signalsBlocked;
    std::thread thread(&ServiceThread::Run, this);
    threadId_ = thread.get_id();
    thread.detach();
    started_ = true;
    return {};
}

Status ServiceThread::Watch(size_t serviceNumber, int listener)
{
    if (Control(epoll_.Get(), EPOLL_CTL_ADD, listener, EPOLLIN, LISTENER_MARK | serviceNumber) != 0) {
        return {errno, "its socket cannot be watched"};
    }
    return {};
}

bool ServiceThread::IsCurrentThread() const
{
    const MutexLock lock(mutex_);
    return threadId_ == std::this_thread::get_id();
}

bool ServiceThread::IsInThisProcess() const
{
    return process_ == getpid();
}

void ServiceThread::End(Service& service)
{
    bool inside = false;
    {
        const MutexLock lock(mutex_);
        ends_.push_back(&service);
        inside = threadId_ == std::this_thread::get_id();
    }
    const uint64_t one = 1;
    while (write(wake_.Get(), &one, sizeof one) < 0 && errno == EINTR) {
    }
    if (!inside) {
        service.WaitForEnd();
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// The thread

void ServiceThread::Run()
{
    pthread_setname_np(pthread_self(), "iam-service");
    epoll_event events[64];
    for (;;) {
        const int count = epoll_wait(epoll_.Get(), events, std::size(events), WaitTime());
        for (int i = 0; i < count; ++i) {
            Dispatch(events[i].data.u64, events[i].events);
        }
        DropLateHandshakes();
        ResumeListening();
        FinishEnds();
    }
}

int ServiceThread::WaitTime() const
{
    Clock::time_point next = Clock::time_point::max();
    if (!handshakes_.empty()) {
        next = handshakes_.front().at;
    }
    if (!paused_.empty()) {
        next = std::min(next, resumeAt_);
    }
    if (next == Clock::time_point::max()) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, 60'000));
}

void ServiceThread::Dispatch(uint64_t key, uint32_t events)
{
    if (key == WAKE_KEY) {
        uint64_t count = 0;
        while (read(wake_.Get(), &count, sizeof count) < 0 && errno == EINTR) {
        }
    } else if ((key & LISTENER_MARK) != 0) {
        AcceptReaders(key & ~LISTENER_MARK);
    } else {
        // Gone if an earlier event of the same batch ended it.
        const auto found = connections_.find(key);
        if (found != connections_.end()) {
            HearReader(*found->second, events);
        }
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// Accepting

void ServiceThread::AcceptReaders(size_t serviceNumber)
{
    Service* const service = ServiceDirectory::Instance().At(serviceNumber);
    const int listener = service->Listener();  // stays open: only this thread ends a service
    for (int i = 0; i < ACCEPTS_AT_ONCE && listener >= 0; ++i) {
        UniqueFd socket = AboveStandard(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket) {
            try {
                AddConnection(serviceNumber, *service, std::move(socket));
            } catch (const std::bad_alloc&) {
                PauseListening(serviceNumber, listener, ENOMEM);
                return;
            }
        } else if (OutOfResources(errno)) {
            PauseListening(serviceNumber, listener, errno);
            return;
        } else if (errno != ECONNABORTED && errno != EINTR) {
            return;  // EAGAIN: nobody waits
        }
    }
}

void ServiceThread::AddConnection(size_t serviceNumber, Service& service, UniqueFd socket)
{
    auto connection = std::make_unique<Connection>();
    Status status = CheckPeerUser(socket.Get(), &connection->pid);
    if (!status.Failed() && connections_.size() >= CONNECTION_LIMIT) {
        status = {EMFILE, "too many connections"};
    }
    const uint64_t id = ++lastConnection_;
    if (!status.Failed() && Control(epoll_.Get(), EPOLL_CTL_ADD, socket.Get(), EPOLLIN | EPOLLRDHUP, id) != 0) {
        status = {errno, "it cannot be watched"};
    }
    if (status.Failed()) {
        Log("%s: a connection was refused: %s", service.Name().c_str(), status.cause);
        return;
    }
    connection->id = id;
    connection->serviceNumber = serviceNumber;
    connection->service = &service;
    connection->socket = std::move(socket);
    handshakes_.push_back({Clock::now() + HANDSHAKE_TIME, id});
    connections_.emplace(id, std::move(connection));
}

void ServiceThread::PauseListening(size_t serviceNumber, int listener, int error)
{
    // The waiting readers stay in the backlog; without the pause this thread would spin on them.
    Log("%s: readers must wait: %s", ServiceDirectory::Instance().At(serviceNumber)->Name().c_str(),
        strerrordesc_np(error));
    Control(epoll_.Get(), EPOLL_CTL_MOD, listener, 0, LISTENER_MARK | serviceNumber);
    if (paused_.empty()) {
        resumeAt_ = Clock::now() + ACCEPT_PAUSE;
    }
    paused_.push_back(serviceNumber);
}

void ServiceThread::ResumeListening()
{
    if (paused_.empty() || Clock::now() < resumeAt_) {
        return;
    }
    for (const size_t serviceNumber : paused_) {
        const int listener = ServiceDirectory::Instance().At(serviceNumber)->Listener();
        if (listener >= 0) {
            Control(epoll_.Get(), EPOLL_CTL_MOD, listener, EPOLLIN, LISTENER_MARK | serviceNumber);
        }
    }
    paused_.clear();
}

// ---------------------------------------------------------------------------------------------------------------------
// One reader

void ServiceThread::HearReader(Connection& connection, uint32_t events)
{
    ReceivedMessage received;
    Status status = ReceiveMessage(connection.socket.Get(), received);
    if (status.error == EAGAIN) {
        return;
    }
    if (!status.Failed() && (events & (EPOLLHUP | EPOLLRDHUP | EPOLLERR)) != 0) {
        status = {EPIPE, nullptr};  // it has left already: nobody needs to hear of it
    }
    if (!status.Failed()) {
        try {
            status = Advance(connection, received.type);
        } catch (const std::bad_alloc&) {
            status = {ENOMEM, "out of memory"};
        }
    }
    if (status.Failed()) {
        CloseConnection(connection.id, status.error == EPIPE ? nullptr : status.cause);
    }
}

Status ServiceThread::Advance(Connection& connection, MessageType type)
{
    if (connection.stage == Stage::AWAIT_HELLO && type == MessageType::HELLO) {
        connection.queue = std::make_unique<BlockQueue>(connection.socket.Get());
        connection.stage = Stage::AWAIT_READY;
        return connection.queue->Offer();
    }
    if (connection.stage == Stage::AWAIT_READY && type == MessageType::READY) {
        return Greet(connection);
    }
    return {EPROTO, "it sent a message out of turn"};
}

Status ServiceThread::Greet(Connection& connection)
{
    connection.label = connection.service->Name() + " (pid " + std::to_string(connection.pid) + ")";
    const Status attached = connection.service->Attach(std::move(connection.queue), connection.key);
    if (attached.Failed()) {
        return attached;
    }
    connection.stage = Stage::CONNECTED;
    connection.file.name = connection.label.c_str();
    connection.file.dataHandle = ReaderHandle(connection.serviceNumber, connection.key);
    const IAMFileOperations operations = connection.service->Notifications();
    if (operations.open != nullptr) {
        operations.open(&connection.file);
    }
    // After the notification, so that the reader before it is not held to be superseded while the publisher still
    // publishes to it.
    connection.service->MakeCurrent(connection.key);
    // The reader's open returns on this message: whatever is published from then on finds it known.
    return SendMessage(connection.socket.Get(), MessageType::CONNECTED);
}

void ServiceThread::CloseConnection(uint64_t id, const char* cause)
{
    const auto found = connections_.find(id);
    Connection& connection = *found->second;
    if (connection.stage == Stage::CONNECTED) {
        const IAMFileOperations operations = connection.service->Notifications();
        if (operations.close != nullptr) {
            operations.close(&connection.file);
        }
        const char* const cutOff = connection.service->Detach(connection.key);
        cause = cutOff != nullptr ? cutOff : cause;
    }
    if (cause != nullptr) {
        Log("%s: the connection of process %d was closed: %s", connection.service->Name().c_str(), connection.pid,
            cause);
    }
    // Said explicitly: a child of fork that has not called exec yet holds the same socket.
    shutdown(connection.socket.Get(), SHUT_RDWR);
    Control(epoll_.Get(), EPOLL_CTL_DEL, connection.socket.Get(), 0, 0);
    connections_.erase(found);
}

void ServiceThread::DropLateHandshakes()
{
    while (!handshakes_.empty()) {
        const auto found = connections_.find(handshakes_.front().connection);
        const bool waiting = found != connections_.end() && found->second->stage != Stage::CONNECTED;
        if (waiting && Clock::now() < handshakes_.front().at) {
            return;
        }
        const uint64_t id = handshakes_.front().connection;
        handshakes_.pop_front();
        if (waiting) {
            CloseConnection(id, "it did not complete the handshake in time");
        }
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// The end of a service

void ServiceThread::FinishEnds()
{
    std::vector<Service*> ends;
    {
        const MutexLock lock(mutex_);
        ends.swap(ends_);
    }
    for (Service* const service : ends) {
        FinishEnd(*service);
    }
}

void ServiceThread::FinishEnd(Service& service)
{
    std::vector<uint64_t> ids;
    for (const auto& entry : connections_) {
        if (entry.second->service == &service) {
            ids.push_back(entry.first);
        }
    }
    std::sort(ids.begin(), ids.end());  // notifications in the order of the opens
    for (const uint64_t id : ids) {
        CloseConnection(id, nullptr);
    }
    Control(epoll_.Get(), EPOLL_CTL_DEL, service.Listener(), 0, 0);
    service.FinishEnd();
}

}  // namespace host_platform::iam

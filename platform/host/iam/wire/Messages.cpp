#include "platform/host/iam/wire/Messages.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace host_platform::iam {
namespace {

constexpr size_t MOST_DESCRIPTORS = 2;
// One more is taken and closed here; what is more still, the kernel closes, and says so. Emulators do not.
constexpr size_t ROOM_FOR_DESCRIPTORS = MOST_DESCRIPTORS + 1;

union ControlBuffer {
    cmsghdr header;
    char bytes[CMSG_SPACE(ROOM_FOR_DESCRIPTORS * sizeof(int))];
};

// Takes every descriptor out of the control data; returns how many there were.
size_t TakeDescriptors(msghdr& header, std::array<UniqueFd, MOST_DESCRIPTORS>& descriptors)
{
    const cmsghdr* const control = CMSG_FIRSTHDR(&header);
    if (control == nullptr || control->cmsg_level != SOL_SOCKET || control->cmsg_type != SCM_RIGHTS) {
        return 0;
    }
    const size_t count = (control->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; ++i) {
        int fd = -1;
        std::memcpy(&fd, CMSG_DATA(control) + i * sizeof(fd), sizeof(fd));
        UniqueFd descriptor = AboveStandard(fd);
        if (i < descriptors.size()) {
            descriptors[i] = std::move(descriptor);
        }
    }
    return count;
}

}  // namespace

Status SendMessage(const UniqueFd& socket, const Message& message, std::initializer_list<int> descriptors)
{
    Message copy = message;
    iovec part{&copy, sizeof(copy)};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    ControlBuffer control{};
    if (descriptors.size() != 0) {
        const size_t bytes = descriptors.size() * sizeof(int);
        header.msg_control = control.bytes;
        header.msg_controllen = CMSG_SPACE(bytes);
        cmsghdr* const rights = CMSG_FIRSTHDR(&header);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(bytes);
        std::memcpy(CMSG_DATA(rights), descriptors.begin(), bytes);
    }
    while (sendmsg(socket.Get(), &header, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
        if (errno != EINTR) {
            return {errno, "a message could not be sent"};
        }
    }
    return {};
}

Status ReceiveMessage(const UniqueFd& socket, ReceivedMessage& received)
{
    unsigned char bytes[sizeof(Message) + 1] = {};  // one more, so that a longer message is noticed
    iovec part{bytes, sizeof(bytes)};
    ControlBuffer control{};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control.bytes;
    header.msg_controllen = sizeof(control);
    bool reset = false;
    ssize_t size = recvmsg(socket.Get(), &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    while (size < 0 && (errno == EINTR || (errno == ECONNRESET && !reset))) {
        reset = errno == ECONNRESET;  // reported once, ahead of messages that are still there
        size = recvmsg(socket.Get(), &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    }
    if (size < 0) {
        const bool lost = errno == ECONNRESET || errno == ENOTCONN;
        return {lost ? EPIPE : errno, "a message could not be received"};
    }
    received.descriptors = {};
    const size_t count = TakeDescriptors(header, received.descriptors);
    if (size == 0) {
        return {EPIPE, "the other side has hung up"};  // an empty message looks the same and is treated the same
    }
    const auto message = ParseMessage(bytes, static_cast<size_t>(size));
    if (!message) {
        return {EPROTO, "a message makes no sense"};
    }
    received.message = *message;
    received.type = static_cast<MessageType>(message->type);
    const size_t expected = DescriptorCount(received.type);
    const bool cut = (header.msg_flags & MSG_CTRUNC) != 0;
    if (cut && count < expected) {
        return {EMFILE, "no room for the descriptors of a message"};
    }
    if (cut || count != expected || (header.msg_flags & MSG_TRUNC) != 0) {
        return {EPROTO, "a message has missing or extra descriptors"};
    }
    return {};
}

Status WaitForMessage(const UniqueFd& socket, Clock::time_point deadline)
{
    pollfd waiting{socket.Get(), POLLIN, 0};
    int ready = 0;
    do {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            return {ETIMEDOUT, "the service does not answer"};
        }
        ready = poll(&waiting, 1, static_cast<int>(left));
    } while (ready == 0 || (ready < 0 && errno == EINTR));
    return Check(ready > 0, "the wait for the service failed");
}

Status CheckPeerUser(const UniqueFd& socket, int& pid)
{
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (getsockopt(socket.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        return {errno, "the user of the other side is not known"};
    }
    pid = peer.pid;
    return peer.uid == geteuid() ? Status{} : Status{EACCES, "the other side runs as another user"};
}

}  // namespace host_platform::iam

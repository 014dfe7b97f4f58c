#include "platform/host/iam/wire/Messages.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace host_platform::iam {
namespace {

constexpr size_t MOST_DESCRIPTORS = 4;  // more than any sound message has, so that extra ones are noticed and closed

union ControlBuffer {
    cmsghdr header;
    char bytes[CMSG_SPACE(MOST_DESCRIPTORS * sizeof(int))];
};

// Takes every descriptor out of the control data; returns how many there were. Those that find no place are closed.
size_t TakeDescriptors(msghdr& header, std::array<UniqueFd, 2>& descriptors)
{
    size_t count = 0;
    for (cmsghdr* control = CMSG_FIRSTHDR(&header); control != nullptr; control = CMSG_NXTHDR(&header, control)) {
        if (control->cmsg_level != SOL_SOCKET || control->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        const size_t here = (control->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < here; ++i, ++count) {
            int fd = -1;
            memcpy(&fd, CMSG_DATA(control) + i * sizeof fd, sizeof fd);
            UniqueFd owned = AboveStandard(fd);
            if (count < descriptors.size()) {
                descriptors[count] = std::move(owned);
            }
        }
    }
    return count;
}

ssize_t ReceiveOnce(int socket, msghdr& header)
{
    for (;;) {
        const ssize_t size = recvmsg(socket, &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        if (size >= 0 || errno != EINTR) {
            return size;
        }
    }
}

}  // namespace

Status SendMessage(int socket, const Message& message, std::initializer_list<int> descriptors)
{
    Message copy = message;
    iovec part{&copy, sizeof copy};
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
        memcpy(CMSG_DATA(rights), descriptors.begin(), bytes);
    }
    ssize_t sent = -1;
    do {
        sent = sendmsg(socket, &header, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        return {errno, "a message could not be sent"};
    }
    return {};
}

Status SendMessage(int socket, MessageType type)
{
    Message message;
    message.type = static_cast<uint16_t>(type);
    return SendMessage(socket, message);
}

Status ReceiveMessage(int socket, ReceivedMessage& received)
{
    unsigned char bytes[sizeof(Message) + 1] = {};  // one more, so that a longer message is noticed
    iovec part{bytes, sizeof bytes};
    ControlBuffer control{};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control.bytes;
    header.msg_controllen = sizeof control;
    ssize_t size = ReceiveOnce(socket, header);
    if (size < 0 && errno == ECONNRESET) {
        size = ReceiveOnce(socket, header);  // reported once, ahead of messages that are still there
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
    if ((header.msg_flags & MSG_CTRUNC) != 0 && count < expected) {
        return {EMFILE, "no room for the descriptors of a message"};
    }
    if (count != expected || (header.msg_flags & (MSG_CTRUNC | MSG_TRUNC)) != 0) {
        return {EPROTO, "a message has missing or extra descriptors"};
    }
    return {};
}

Status CheckPeerUser(int socket, int* pid)
{
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        return {errno, "the user of the other side is not known"};
    }
    if (peer.uid != geteuid()) {
        return {EACCES, "the other side runs as another user"};
    }
    if (pid != nullptr) {
        *pid = peer.pid;
    }
    return {};
}

}  // namespace host_platform::iam

// Sends and receives the messages of Protocol.h over a packet socket, with the descriptors that belong to them.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_MESSAGES_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_MESSAGES_H

#include <array>
#include <chrono>
#include <initializer_list>

#include "platform/host/common/Descriptor.h"
#include "platform/host/common/Status.h"
#include "platform/host/iam/wire/Protocol.h"

namespace host_platform::iam {

using Clock = std::chrono::steady_clock;

struct ReceivedMessage {
    MessageType type{};
    Message message;
    std::array<UniqueFd, 2> descriptors;  // as many as DescriptorCount(type), the rest empty
};

// Never blocks, never raises SIGPIPE.
Status SendMessage(const UniqueFd& socket, const Message& message, std::initializer_list<int> descriptors = {});

// Never blocks. EAGAIN when nothing is there, EPIPE when the peer has hung up, EPROTO when what it sent is not exactly
// one sound message with the descriptors that belong to it (all that came with it are closed), EMFILE when the process
// has no room for those.
Status ReceiveMessage(const UniqueFd& socket, ReceivedMessage& received);

// Waits until there is something to receive, a hang-up included. ETIMEDOUT at the deadline.
Status WaitForMessage(const UniqueFd& socket, Clock::time_point deadline);

// Tells the process at the other end; fails with EACCES unless it runs as this process's user.
Status CheckPeerUser(const UniqueFd& socket, int& pid);

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_WIRE_MESSAGES_H

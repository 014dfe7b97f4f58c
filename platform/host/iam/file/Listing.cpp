#include "platform/host/iam/file/Listing.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "platform/host/common/Descriptor.h"
#include "platform/host/iam/RuntimeDirectory.h"
#include "platform/host/iam/wire/Messages.h"

namespace host_platform::iam {
namespace {

constexpr auto ANSWER_TIME = std::chrono::milliseconds(500);

// A service and what it answers.
struct Asked {
    std::string name;
    UniqueFd socket;
    int pid = 0;
    bool answered = false;
    std::vector<IAMHostReader> readers;
};

// The resource whose socket would have this name, if it is such a name.
std::string Decode(const std::string& file)
{
    std::string name;
    for (size_t i = 0; i < file.size(); ++i) {
        unsigned int byte = static_cast<unsigned char>(file[i]);
        if (file[i] == '%' && sscanf(file.c_str() + i, "%%%2X", &byte) == 1) {
            i += 2;
        }
        name += static_cast<char>(byte);
    }
    return name;
}

// Asks whoever listens there. False when nobody does, or another user's process.
bool Ask(const Path& path, Asked& asked)
{
    asked.socket = AboveStandard(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address = AddressOf(path);
    if (connect(asked.socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        return errno == EAGAIN;  // so many wait for it that it has no room for this one
    }
    return !CheckPeerUser(asked.socket, asked.pid).Failed() &&
           !SendMessage(asked.socket, Compose(MessageType::LIST, 0, 0, 0)).Failed();
}

// Waits for what it answers, or for the deadline, which may have passed.
void Hear(Asked& asked, Clock::time_point deadline)
{
    static_cast<void>(WaitForMessage(asked.socket, deadline));  // what is there by now counts also when it is over
    ListingPacket packet;
    const ssize_t size = recv(asked.socket.Get(), &packet, sizeof(packet), MSG_DONTWAIT);
    const auto message = ParseMessage(reinterpret_cast<const unsigned char*>(&packet),
                                      std::min(static_cast<size_t>(std::max<ssize_t>(size, 0)), sizeof(Message)));
    if (!message || message->type != static_cast<uint16_t>(MessageType::LISTING) ||
        message->bytes != static_cast<uint64_t>(size)) {
        return;
    }
    asked.answered = true;
    for (uint32_t i = 0; i < message->count; ++i) {
        const ListedReader& reader = packet.readers[i];
        asked.readers.push_back(
            {reader.pid, (reader.flags & LISTED_CURRENT) != 0 ? 1 : 0, (reader.flags & LISTED_OBSERVER) != 0 ? 1 : 0});
    }
}

Status AskAll(const Path& directory, std::vector<Asked>& all)
{
    std::error_code error;
    std::filesystem::directory_iterator entry(directory.text, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const std::string file = entry->path().filename();
        Asked asked;
        asked.name = Decode(file);
        Path path = directory;
        const bool fits = IsResourceName(asked.name.c_str()) && !AppendName(asked.name.c_str(), path).Failed();
        if (fits && file == path.text + strlen(directory.text) + 1 && Ask(path, asked)) {
            all.push_back(std::move(asked));
        }
    }
    return error ? Status{error.value(), "the runtime directory cannot be read"} : Status{};
}

}  // namespace

Status ListResources(IAMHostVisitor visit, void* context)
{
    Path path{};
    UniqueFd directory;
    const Status opened = OpenRuntimeDirectory(Missing::REFUSE, path, directory);
    if (opened.Failed()) {
        return opened.error == ENOENT ? Status{} : opened;
    }
    std::vector<Asked> all;
    try {
        const Status asked = AskAll(path, all);
        if (asked.Failed()) {
            return asked;
        }
        const Clock::time_point deadline = Clock::now() + ANSWER_TIME;
        for (Asked& one : all) {
            Hear(one, deadline);
        }
    } catch (const std::bad_alloc&) {
        return {ENOMEM, "out of memory"};
    }
    std::sort(all.begin(), all.end(), [](const Asked& a, const Asked& b) { return a.name < b.name; });
    for (const Asked& asked : all) {
        const IAMHostResource resource{asked.name.c_str(), asked.pid, asked.answered ? 1 : 0, asked.readers.data(),
                                       asked.readers.size()};
        visit(&resource, context);
    }
    return {};
}

}  // namespace host_platform::iam

#include "platform/host/iam/RuntimeDirectory.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace host_platform::iam {
namespace {

const char* Environment(const char* name)
{
    const char* const value = secure_getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

constexpr char DIGITS[] = "0123456789ABCDEF";

bool StaysAsItIs(unsigned char byte)
{
    const auto lower = static_cast<unsigned char>(byte | 0x20);
    return (lower >= 'a' && lower <= 'z') || (byte >= '0' && byte <= '9') || byte == '-' || byte == '_';
}

const char* WhyNotOpened(int error)
{
    if (error == ENOTDIR || error == ELOOP) {
        return "the runtime directory is refused: it is not a directory, or a link to one";
    }
    return error == ENOENT ? "there is no runtime directory" : "the runtime directory is refused: it cannot be opened";
}

}  // namespace

bool IsResourceName(const char* name)
{
    const size_t prefix = strcspn(name, ":/");
    return strncmp(name + prefix, ":/res/", 6) == 0;
}

Status NameRuntimeDirectory(Path& directory)
{
    const char* const own = Environment("IAM_RUNTIME_DIR");
    const char* const session = Environment("XDG_RUNTIME_DIR");
    char* const text = directory.text;
    int length = 0;
    if (own != nullptr) {
        length = snprintf(text, sizeof(directory.text), "%s", own);
    } else if (session != nullptr) {
        length = snprintf(text, sizeof(directory.text), "%s/iam", session);
    } else {
        length = snprintf(text, sizeof(directory.text), "/tmp/iam-%u", geteuid());
    }
    if (static_cast<size_t>(length) >= sizeof(directory.text)) {
        return {ENAMETOOLONG, "the path of the runtime directory is too long"};
    }
    return {};
}

Status OpenRuntimeDirectory(Missing missing, Path& path, UniqueFd& directory)
{
    const Status named = NameRuntimeDirectory(path);
    if (named.Failed()) {
        return named;
    }
    if (path.text[0] != '/') {
        return {EINVAL, "the runtime directory is refused: it is not an absolute path"};
    }
    if (missing == Missing::MAKE && mkdir(path.text, 0700) != 0 && errno != EEXIST) {
        return {errno, "the runtime directory is refused: it cannot be made"};
    }
    directory = AboveStandard(open(path.text, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (!directory || fstat(directory.Get(), &status) != 0) {
        return {errno, WhyNotOpened(errno)};
    }
    if (status.st_uid != geteuid()) {
        return {EACCES, "the runtime directory is refused: it belongs to another user"};
    }
    if ((status.st_mode & 077) != 0) {
        return {EACCES, "the runtime directory is refused: others can enter it (its mode must be 0700)"};
    }
    return {};
}

Status AppendName(const char* resource, Path& path)
{
    size_t length = strlen(path.text);
    path.text[length++] = '/';  // in the place of the terminator
    for (; *resource != '\0'; ++resource) {
        const auto byte = static_cast<unsigned char>(*resource);
        const char encoded[] = {'%', DIGITS[byte >> 4], DIGITS[byte & 15]};
        const size_t size = StaysAsItIs(byte) ? 1 : sizeof(encoded);
        if (length + size >= sizeof(path.text)) {
            return {ENAMETOOLONG, "the path of its socket would be too long"};
        }
        std::memcpy(path.text + length, size == 1 ? resource : encoded, size);
        length += size;
    }
    path.text[length] = '\0';
    return {};
}

sockaddr_un AddressOf(const Path& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.text, sizeof(path.text));
    return address;
}

}  // namespace host_platform::iam

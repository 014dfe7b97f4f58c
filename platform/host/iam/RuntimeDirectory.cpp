#include "platform/host/iam/RuntimeDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/host/iam/Descriptor.h"

namespace host_platform::iam {
namespace {

const char* Environment(const char* name)
{
    const char* const value = secure_getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

std::string ConfiguredDirectory()
{
    if (const char* const own = Environment("IAM_RUNTIME_DIR")) {
        return own;
    }
    if (const char* const session = Environment("XDG_RUNTIME_DIR")) {
        return std::string(session) + "/iam";
    }
    return "/tmp/iam-" + std::to_string(geteuid());
}

Status Refuse(const std::string& directory, int error, const std::string& cause)
{
    return {error, "the runtime directory " + directory + " is refused: " + cause};
}

Status CheckPrivate(const std::string& directory)
{
    const UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) {
        const int error = errno;
        if (error == ENOENT) {
            return {ENOENT, "there is no runtime directory " + directory};
        }
        const bool form = error == ENOTDIR || error == ELOOP;
        return Refuse(directory, error, form ? "it is not a directory, or a link to one" : strerrordesc_np(error));
    }
    struct stat status = {};
    if (fstat(fd.Get(), &status) != 0) {
        return Refuse(directory, errno, "its owner is not known");
    }
    if (status.st_uid != geteuid()) {
        return Refuse(directory, EACCES, "it belongs to another user");
    }
    if ((status.st_mode & 077) != 0) {
        return Refuse(directory, EACCES, "others can enter it (its mode must be 0700)");
    }
    return {};
}

}  // namespace

bool IsResourceName(const char* name)
{
    const size_t prefix = strcspn(name, ":/");
    return strncmp(name + prefix, ":/res/", 6) == 0;
}

std::string EncodeName(const std::string& name)
{
    static constexpr char DIGITS[] = "0123456789ABCDEF";
    std::string encoded;
    encoded.reserve(name.size() * 3);
    for (const char character : name) {
        const auto byte = static_cast<unsigned char>(character);
        const auto lower = static_cast<unsigned char>(byte | 0x20);
        if ((lower >= 'a' && lower <= 'z') || (byte >= '0' && byte <= '9') || byte == '-' || byte == '_') {
            encoded += character;
        } else {
            encoded += '%';
            encoded += DIGITS[byte >> 4];
            encoded += DIGITS[byte & 15];
        }
    }
    return encoded;
}

Status FindRuntimeDirectory(bool make, std::string& directory)
{
    directory = ConfiguredDirectory();
    if (directory.front() != '/') {
        return Refuse(directory, EINVAL, "it is not an absolute path");
    }
    if (make && mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
        return Refuse(directory, errno, "it cannot be made");
    }
    return CheckPrivate(directory);
}

Status FindSocketPath(bool makeDirectory, const std::string& resource, std::string& path)
{
    std::string directory;
    const Status found = FindRuntimeDirectory(makeDirectory, directory);
    if (found.Failed()) {
        return found;
    }
    path = directory + '/' + EncodeName(resource);
    if (path.size() >= sizeof(sockaddr_un::sun_path)) {
        return {ENAMETOOLONG, "the path of its socket would be too long"};
    }
    return {};
}

}  // namespace host_platform::iam

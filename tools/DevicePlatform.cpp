#include <sys/prctl.h>

#include <cerrno>

#include "tools/Event.h"
#include "tools/Platform.h"
#include "tools/Subscription.h"

namespace tools::platform {

int List(std::vector<Resource>& /*resources*/)
{
    return -ENOSYS;
}

std::string RuntimeDirectory()
{
    return "";
}

bool HasLostPlace(const std::string& /*resource*/)
{
    return false;
}

// A read thread bears its file's name, cut off. Where that fits several files, the name is told as it is.
std::string SourceOfThisThread(const std::vector<std::string>& files)
{
    char name[READ_THREAD_NAME_LENGTH + 1] = {};
    prctl(PR_GET_NAME, name);
    const std::string* source = nullptr;
    for (const std::string& file : files) {
        if (ReadThreadName(file) != name) {
            continue;
        }
        if (source != nullptr) {
            return name;
        }
        source = &file;
    }
    return source == nullptr ? std::string(FAULT_REPORTING) : *source;
}

}  // namespace tools::platform

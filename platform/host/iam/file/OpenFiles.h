// The resource files that this process has open, by descriptor number.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_FILE_OPEN_FILES_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_FILE_OPEN_FILES_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>

#include "platform/host/common/Mutex.h"
#include "platform/host/common/Status.h"
#include "platform/host/iam/file/ResourceFile.h"

namespace host_platform::iam {

// Never destroyed.
//
// Numbers rotate: one that was just closed is the last to be handed out again, so that a thread which still holds the
// old number meets nobody else's file.
//
// Each thread remembers the file it read last and looks it up again only when it reads another: while records flow,
// a read takes no lock and touches nothing that threads of other files write. When the remembered file has been closed
// by another thread, the next read under its number fails with EBADF, even if the number has been reused meanwhile:
// the thread cannot have meant the new file.
class OpenFiles {
public:
    static OpenFiles& Instance();

    // Gives the connection its number. EMFILE when there is none.
    Status Add(std::shared_ptr<ResourceFile> connection, int& fd) HOST_EXCLUDES(mutex_);

    // As IAMFastRead, with a negative errno value for a failure.
    int64_t Read(int fd, void* buffer, size_t length) HOST_EXCLUDES(mutex_);

    // False if this is no resource file: then nothing has happened.
    bool Close(int fd) HOST_EXCLUDES(mutex_);

private:
    OpenFiles() = default;

    std::shared_ptr<ResourceFile> Find(int fd) HOST_EXCLUDES(mutex_);
    int NextNumber(int socket) HOST_REQUIRES(mutex_);

    Mutex mutex_;
    std::unordered_map<int, std::shared_ptr<ResourceFile>> connections_ HOST_GUARDED_BY(mutex_);
    int nextNumber_ HOST_GUARDED_BY(mutex_) = 0;
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_FILE_OPEN_FILES_H

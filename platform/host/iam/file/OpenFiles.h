// The resource files that this process has open, by descriptor number.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_FILE_OPEN_FILES_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_FILE_OPEN_FILES_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/host/common/Mutex.h"
#include "platform/host/common/Status.h"
#include "platform/host/iam/file/ResourceFile.h"
#include "platform/host/iam/file/Watcher.h"

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
    OpenFiles(const OpenFiles&) = delete;
    OpenFiles& operator=(const OpenFiles&) = delete;

    // Opens the file of a resource; see ResourceFile::Connect. EMFILE when there is no number for it.
    Status Open(const char* resource, int& fd) HOST_EXCLUDES(mutex_);

    // As IAMFastRead, with a negative errno value for a failure.
    int64_t Read(int fd, void* buffer, size_t length) HOST_EXCLUDES(mutex_);

    // False if this is no resource file of this process: then nothing has happened. A child of fork has its parent's
    // numbers, but not its files.
    bool Close(int fd) HOST_EXCLUDES(mutex_);

    // For the watcher: wakes all readers that sleep though their file calls for attention. Whether there was one.
    bool WakeInattentive() const;

private:
    // A file and its number. Made when all others are in use, and never unmade.
    struct Slot {
        ResourceFile file;
        int number = -1;  // guarded by mutex_
        Slot* older = nullptr;
    };

    OpenFiles() = default;

    Slot* Claim() HOST_EXCLUDES(mutex_);
    Status GiveNumber(Slot& slot, int& fd) HOST_EXCLUDES(mutex_);
    int NextNumber(int socket) HOST_REQUIRES(mutex_);
    Slot* Find(int fd) const HOST_REQUIRES(mutex_);
    bool Remember(int fd) HOST_EXCLUDES(mutex_);

    Watcher watcher_{*this};
    Mutex mutex_;
    std::atomic<Slot*> newest_{nullptr};
    int nextNumber_ HOST_GUARDED_BY(mutex_) = 0;
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_FILE_OPEN_FILES_H

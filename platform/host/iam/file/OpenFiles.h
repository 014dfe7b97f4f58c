// The resource files that this process has open, by descriptor number, and the one thread that watches their sockets.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_FILE_OPEN_FILES_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_FILE_OPEN_FILES_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/host/common/Descriptor.h"
#include "platform/host/common/Mutex.h"
#include "platform/host/common/Status.h"
#include "platform/host/iam/BackgroundThread.h"
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
//
// The watching thread lets a reader sleep on its ring alone. What happens to a socket (a message, a hang-up, the
// shutdown that a close does) is noted in its file, and a reader that sleeps there is woken, again every millisecond
// until it has taken notice: it may just have been falling asleep, and a broken service may change the word that it
// sleeps on.
class OpenFiles {
public:
    static OpenFiles& Instance();
    OpenFiles(const OpenFiles&) = delete;
    OpenFiles& operator=(const OpenFiles&) = delete;

    // Opens the file of a resource; see ResourceFile::Connect. EMFILE when there is no number for it, ENOTSUP in a
    // child of a process that has opened one.
    Status Open(const char* resource, Role role, int& fd) HOST_EXCLUDES(mutex_, startMutex_);

    // As IAMFastRead, with a negative errno value for a failure.
    int64_t Read(int fd, void* buffer, size_t length) HOST_EXCLUDES(mutex_);

    // False if this is no resource file of this process: then nothing has happened. A child of fork has its parent's
    // numbers, but not its files.
    bool Close(int fd) HOST_EXCLUDES(mutex_);

    // Of all open files of this resource: the records lost, and whether one has lost its place.
    uint64_t LostRecords(const char* resource) HOST_EXCLUDES(mutex_);
    bool HasLostPlace(const char* resource) HOST_EXCLUDES(mutex_);

    // The resource of the record that this thread has read last; null unless its last read returned one.
    static const char* ResourceOfThisThread();

private:
    // A file and its number. Made when all others are in use, and never unmade.
    struct Slot {
        ResourceFile file;
        int number = -1;  // guarded by mutex_
        Slot* older = nullptr;
    };

    OpenFiles() = default;

    Status StartWatching() HOST_EXCLUDES(startMutex_);
    void Watch() const;

    Slot* Claim() HOST_EXCLUDES(mutex_);
    Status Publish(Slot& slot, int& fd) HOST_EXCLUDES(mutex_);
    int NextNumber(const UniqueFd& socket) HOST_REQUIRES(mutex_);
    Slot* Find(int fd) const HOST_REQUIRES(mutex_);
    bool Remember(int fd) HOST_EXCLUDES(mutex_);
    template <typename Act>
    void ForEachOpen(const char* resource, Act act) HOST_EXCLUDES(mutex_);

    Mutex startMutex_;  // held only to start the thread
    BackgroundThread watcher_;
    UniqueFd epoll_;  // set before it starts, and stays

    Mutex mutex_;
    std::atomic<Slot*> newest_{nullptr};
    int nextNumber_ HOST_GUARDED_BY(mutex_) = 0;
};

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_FILE_OPEN_FILES_H

// What the library expects of the platform's inter-process middleware (IAM): a resource service with a pool of shared
// memory on the publishing side, resource files that deliver one record per read on the subscribing side.
//
// Every function has C linkage and may be called from any thread.
//
// Resource files are opened by name with POSIX `open` (O_RDWR at first, O_RDONLY after a lost connection) and closed
// with `close`. What the subscription half relies on:
//   - `open` returns a descriptor of 0 or more, or -1; once it has returned, this reader misses nothing that is
//     published on the resource while it is the newest one;
//   - `close` from another thread wakes a thread that is blocked in IAMFastRead on that descriptor, at once.
// What the publishing half relies on at exit: once the exit handlers have come to what was built before the service was
// registered, no notification is delivered any more in this process, whether there is a pool or not.
#ifndef REPORT_EVENT_PLATFORM_IAM_H
#define REPORT_EVENT_PLATFORM_IAM_H

#include <cstddef>
#include <cstdint>

// An opened resource file as the service sees it: one per reader. IAM owns it; it lives until the close notification
// for it has returned. The library reads `name` and `dataHandle` and nothing else.
struct IAMRTFSMgrFile {
    uint64_t reserved0;
    const char* name;  // NUL-terminated text for log messages; may be null
    uint64_t reserved16;
    uint64_t dataHandle;  // first argument of IAMRTDataEnqueue for this reader
};

// Notification that a reader has opened or closed the resource file. Delivered on a thread of IAM's own, never on a
// thread that is inside one of the calls below, and with no lock of IAM's held: the receiver takes the lock under which
// it makes these calls.
using IAMFileNotification = int (*)(IAMRTFSMgrFile* file);

struct IAMFileOperations {
    void* operation0;
    void* operation1;
    IAMFileNotification open;
    IAMFileNotification close;
    void* operation4;
};

// The records below live only as long as the call that receives them: IAM copies what it keeps.
struct IAMRTServiceRecord {
    const char* serviceName;
    const IAMFileOperations* operations;
    uint32_t settings[4];
};

struct IAMShmPoolConfig {
    const char* fileName;  // the name of the service the pool belongs to
    uint32_t size;         // bytes
    uint32_t blockCount;
};

// Opaque to the library, which stores both zero-initialised and passes their addresses. They stay where they are for
// the life of the process. An all-zero pool handle names no pool: every pool call on it fails.
struct IAMShmPoolHandle {
    unsigned char opaque[268];
};
struct IAMShmBlockHandle {
    uint64_t opaque;
};

struct IAMDataPackage {
    IAMShmPoolHandle* pool;
    IAMShmBlockHandle* block;
    uint64_t count;
};

static_assert(offsetof(IAMRTFSMgrFile, name) == 8 && offsetof(IAMRTFSMgrFile, dataHandle) == 24, "reader file layout");
static_assert(sizeof(IAMFileOperations) == 40 && offsetof(IAMFileOperations, open) == 16 &&
                  offsetof(IAMFileOperations, close) == 24 && offsetof(IAMFileOperations, operation4) == 32,
              "file operations table layout");
static_assert(sizeof(IAMRTServiceRecord) == 32 && offsetof(IAMRTServiceRecord, operations) == 8 &&
                  offsetof(IAMRTServiceRecord, settings) == 16,
              "service record layout");
static_assert(sizeof(IAMShmPoolConfig) == 16 && offsetof(IAMShmPoolConfig, size) == 8 &&
                  offsetof(IAMShmPoolConfig, blockCount) == 12,
              "pool configuration layout");
static_assert(sizeof(IAMShmPoolHandle) == 268 && sizeof(IAMShmBlockHandle) == 8, "handle sizes");
static_assert(sizeof(IAMDataPackage) == 24 && offsetof(IAMDataPackage, block) == 8 &&
                  offsetof(IAMDataPackage, count) == 16,
              "data package layout");

extern "C" {

// Serves the resource `record->serviceName` from this process and delivers `open` and `close` notifications. Returns a
// negative value on failure. May be repeated: what that means is IAM's business.
int IAMRegisterRTService(IAMRTServiceRecord* record);

// Makes the pool of shared memory for a registered service and fills `pool`. Returns a negative value on failure. No
// notification is delivered on the calling thread from inside the call.
int IAMShmRegisterPoolWithConfig(IAMShmPoolConfig* config, IAMShmPoolHandle* pool);

// The next four return 0 on success and any other value on failure, never block for a reader, and deliver no
// notification on the calling thread. The caller serialises them.

// Takes a block with room for `size` bytes from the pool and fills `block`. Fails when the pool is exhausted.
int IAMShmHandleMalloc(IAMShmPoolHandle* pool, uint32_t size, IAMShmBlockHandle* block);

// Copies `size` bytes from `data` into the block. The last argument is always 0.
int IAMShmWrite(IAMShmBlockHandle* block, const char* data, uint32_t size, uint32_t offset);

// Appends the block to the queue of the reader whose IAMRTFSMgrFile holds `dataHandle`. On success the block belongs to
// that queue, and IAM returns it to the pool once the reader has consumed it or is gone; on failure it stays the
// caller's.
int IAMRTDataEnqueue(uint64_t dataHandle, IAMDataPackage* package);

// Returns a block that was not enqueued.
int IAMShmFree(IAMShmPoolHandle* pool, IAMShmBlockHandle* block);

// Destroys the pool and ends its service. Called when the publisher is destroyed, at exit or before; after it has
// returned, no notification runs. A close notification may be delivered while it is in progress. Fails, and does
// nothing, when the exit handlers have ended the service already.
int IAMShmDestroyPool(IAMShmPoolHandle* pool);

// Reads one record into the start of `buffer` and returns its length, 0 or more and never above `length`; 0 is an empty
// record, never the end of a stream. Blocks while no record is ready. Returns a negative value with the cause in errno
// on failure, which is never EINTR:
//   ETIMEDOUT, EAGAIN, EIO          passing: the caller reads again at once, without pause;
//   EPIPE, EBADMSG, EBADFD, EBADF   the connection is lost (EBADF also once another thread has closed `fd`);
//   any other                       fatal for this reader, while the service may live: ESTALE for one that has lost its
//                                   place to a newer reader.
int64_t IAMFastRead(int fd, void* buffer, size_t length);

}  // extern "C"

#endif  // REPORT_EVENT_PLATFORM_IAM_H

// What the host platform tells and does beyond the platform's own interface; for tools, benchmarks and tests on a
// development machine. Every function has C linkage, throws nothing, and may be called from any thread unless it says
// otherwise.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_HOST_SERVICE_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_HOST_SERVICE_H

#include <stddef.h>
#include <stdint.h>

extern "C" {

// --- In a process that serves a resource

// How many readers have this resource open: those whose open notification has returned and which have not been found
// gone. Observers do not count. -1 when this process does not serve the resource.
int IAMHostReaderCount(const char* resource);

// --- In a process that opens resource files

// From now on this process opens resource files as an observer (1), or as a reader again (0). The environment variable
// IAM_OBSERVE=1 does the same. An observer gets a copy of each record that the current reader is given and takes
// nothing from it: the publisher is not let know of it, and it holds none of its blocks. One that is too slow loses
// records.
void IAMHostObserve(int on);

// How many records this process's open observing files of this resource have lost. 0 when there are none.
uint64_t IAMHostLostRecords(const char* resource);

// 1 when a file of this resource that this process has open has lost its place: it was no longer the newest reader and
// did not read, so its blocks were needed for another, and its read failed with ESTALE. Else 0.
int IAMHostLostPlace(const char* resource);

// The name of the resource whose record the calling thread has read last: from an IAMFastRead that returned a record to
// the next call of it on this thread. Null elsewhere. Valid until that call.
const char* IAMHostResourceOfThisThread(void);

// --- Anywhere

// Writes the path of the runtime directory, NUL-terminated, whether or not it exists. 0, -EINVAL for a null buffer,
// -ENAMETOOLONG when no socket can have a name in it, -ERANGE when it does not fit.
int IAMHostRuntimeDirectory(char* buffer, size_t size);

// A reader or observer of a resource, as its service sees it.
struct IAMHostReader {
    int pid;       // of the process that has opened it
    int current;   // 1 for the reader to which records go, else 0
    int observer;  // 1 for an observer
};

// A resource that somebody serves. All of it is valid during the visit only.
struct IAMHostResource {
    const char* name;
    int pid;                       // of the serving process; 0 when it is not known
    int answers;                   // 0 when the service did not say who its readers are in time
    const IAMHostReader* readers;  // readerCount of them; those that are still opening it are left out
    size_t readerCount;
};

typedef void (*IAMHostVisitor)(const struct IAMHostResource* resource, void* context);

// Calls `visit` for each resource that is served in the runtime directory, in the order of their names, on the calling
// thread. All services are asked at once; one that has not answered after half a second is listed as not answering.
// What a dead process has left is not listed. 0, or a negative errno value with the cause logged when the directory
// cannot be read or memory is short; a missing directory is an empty one.
int IAMHostList(IAMHostVisitor visit, void* context);

}  // extern "C"

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_HOST_SERVICE_H

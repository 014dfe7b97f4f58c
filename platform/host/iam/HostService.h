// What the host platform tells beyond the platform's own interface; for tools and tests on a development machine.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_HOST_SERVICE_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_HOST_SERVICE_H

extern "C" {

// How many readers have this resource open: those whose open notification has returned and which have not been found
// gone. -1 when this process does not serve the resource. Any thread, but not from a notification.
int IAMHostReaderCount(const char* resource);

}  // extern "C"

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_HOST_SERVICE_H

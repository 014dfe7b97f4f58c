// What the library expects of the platform's logging library.
//
// Every function has C linkage and may be called from any thread. CheckLogLevel and DlogInner are also called from a
// signal handler (SIGPIPE), at any point of any thread: they must not take a lock that the interrupted code may hold,
// and must not allocate. The caller treats errno as undefined after each call.
#ifndef REPORT_EVENT_PLATFORM_SLOG_H
#define REPORT_EVENT_PLATFORM_SLOG_H

extern "C" {

// Returns 1 when messages of `level` are written for `module`, anything else when they are not. Levels in use by this
// library: 2 (informational notice), 3 (failure), 16 (lifecycle notice). The module is 54.
int CheckLogLevel(int module, int level);

// Writes one diagnostic message. Filtering is the caller's: this function writes whatever it is given. The arguments
// need to live only as long as the call. A trailing line feed in the format is allowed and ends the same one line.
// Raises no SIGPIPE, whose handler would call it again without end.
void DlogInner(int module, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

// Writes one event-log entry, never filtered. The module is 0x1000036: module 54 with the event-log bit (24) set.
void DlogEventInner(int module, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Returns once everything logged so far has been handed to its destination. Called once, during exit.
void DlogFlush(void);

}  // extern "C"

#endif  // REPORT_EVENT_PLATFORM_SLOG_H

// What libslog of the host platform offers beyond the platform's own interface; for the libraries of the host platform
// and the programs on it. A public header: it needs nothing but itself and libslog.
#ifndef REPORT_EVENT_PLATFORM_HOST_SLOG_HOST_LOG_H
#define REPORT_EVENT_PLATFORM_HOST_SLOG_HOST_LOG_H

extern "C" {

// Writes one diagnostic line as DlogInner does, but for all its callers in the process together at most 20 lines at
// once and one a second after that: for lines that somebody else can provoke without end. The next line
// written to standard error, by whichever call, says how many were left out. Filtering is the caller's. The arguments
// need to live only as long as the call. Any thread and any signal handler; takes no lock, does not allocate, never
// waits, raises no SIGPIPE and preserves errno.
void SlogHostBounded(int module, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

// Gets the text of a message, NUL-terminated and valid during the call only, on the thread that logs it: that may be in
// the middle of a signal handler, and with any lock of the caller's held.
typedef void (*SlogHostListener)(const char* text);

// Silences this process for good, unless SLOG_LEVELS or SLOG_EVENT_FILE was set when libslog was loaded: nothing is
// written any more, and CheckLogLevel answers 0. With a `listener`, which may be null, messages of level 3 go to it
// instead: for these CheckLogLevel answers 1. Any thread, any number of times; lines that other threads are just
// writing still appear.
void SlogHostQuiet(SlogHostListener listener);

}  // extern "C"

#endif  // REPORT_EVENT_PLATFORM_HOST_SLOG_HOST_LOG_H

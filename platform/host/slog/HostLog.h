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

// Silences this process for good, unless SLOG_LEVELS or SLOG_EVENT_FILE was set when libslog was loaded: CheckLogLevel
// answers 0 from now on, and DlogEventInner writes nothing. DlogInner and SlogHostBounded still write what they are
// given by a caller that did not ask. Any thread, any number of times; lines that other threads are just writing still
// appear.
void SlogHostQuiet(void);

}  // extern "C"

#endif  // REPORT_EVENT_PLATFORM_HOST_SLOG_HOST_LOG_H

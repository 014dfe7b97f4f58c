// Diagnostics of the transport: one line on standard error for each event that a person should know of.
#ifndef REPORT_EVENT_PLATFORM_HOST_IAM_LOG_H
#define REPORT_EVENT_PLATFORM_HOST_IAM_LOG_H

namespace host_platform::iam {

// Writes "iam: " and the text with a single write. A burst is let through, then about one line a second, so that a
// hostile peer cannot flood the log; the next line let through says how many were left out. Never raises SIGPIPE and
// preserves errno. May block as long as standard error does: never called with a lock held.
void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace host_platform::iam

#endif  // REPORT_EVENT_PLATFORM_HOST_IAM_LOG_H

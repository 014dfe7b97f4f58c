// Publishing events: the publisher interface of libreport_event.
#ifndef REPORT_EVENT_REPORT_EVENT_CLIENT_H
#define REPORT_EVENT_REPORT_EVENT_CLIENT_H

#include <string>

// The one publisher of a process (a process manager). It serves one resource and sends event records to the reader that
// opened the resource most recently. Its failures are written to the system log, its results stand in ResultCodes.h.
//
// Threads. Both operations may be called from any thread; records are published one at a time, in the order in which
// callers get in. Neither may be called from a signal handler. A thread that is cancelled in RegisterResService ends
// after it; a thread must not be cancelled in ReportEvent. A process that has registered a service does not unload the
// library, and stops publishing before it exits. A child of fork must leave by exec or _exit.
class __attribute__((visibility("default"))) ReportEventClient {
public:
    virtual ~ReportEventClient();

    // Returns the process's publisher, made by the first call. Any thread.
    static ReportEventClient& GetInstance();

    // Registers the resource service and the pool of shared memory under `name`. Called once: a process serves one
    // resource, and the platform of a development host refuses a second name. `name` is not used after the call.
    //   RESULT_OK
    //   RESULT_SERVICE_FAILED  the service could not be registered; nothing was registered
    //   RESULT_POOL_FAILED     the pool could not be registered; the service stays registered. To try again, call again
    //                          with the same name
    virtual int RegisterResService(const std::string& name) = 0;

    // Publishes one record of `size` bytes, at most 3960, unchanged (EventRecord.h has its format). The bytes are
    // copied before the call returns. One attempt: nothing is queued or retried here. Does not wait for the reader.
    //   RESULT_OK              the record was handed to the current reader, or dropped because no reader has the
    //                          resource open (in that case neither `buf` nor `size` is looked at)
    //   RESULT_NULL_POINTER    `buf` is null
    //   RESULT_WRONG_SIZE      `size` is above 3960
    //   RESULT_NO_BLOCK        no block is free in the pool: the reader is slower than the publisher. Try again later;
    //                          each such attempt writes a line to the system log, so do not try in a tight loop
    //   RESULT_WRITE_FAILED    the record could not be written into its block
    //   RESULT_ENQUEUE_FAILED  the record could not be enqueued; the reader may just be leaving
    // After any code but RESULT_OK the record was not published, and the next call starts afresh.
    virtual int ReportEvent(const char* buf, unsigned int size) = 0;
};

#endif  // REPORT_EVENT_REPORT_EVENT_CLIENT_H

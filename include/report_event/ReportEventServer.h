// Receiving events: the subscriber interface of libreport_event.
#ifndef REPORT_EVENT_REPORT_EVENT_SERVER_H
#define REPORT_EVENT_REPORT_EVENT_SERVER_H

#include <functional>
#include <string>
#include <vector>

#include "report_event/EventTypes.h"

// The one subscriber of a process. It receives two independent event families: fault events, from the resource files
// that the client names (normally PM_FAULT_RESOURCE and SEA_PM_FAULT_RESOURCE) and from the platform's fault-reporting
// library, and security events, from SECURITY_RESOURCE (ResourceNames.h).
//
// Threads. The four operations run on the client's threads, one at a time: two of them must not run at once, whatever
// their family. A thread that is cancelled in one of them ends after it. Each subscribed file has one read thread of
// the library's, named "Rd_" and the file's name, with the signal mask of the thread that registered it; on it, the
// file's events are delivered in the order in which they were published. The fault-reporting library delivers on
// threads of its choosing. Callbacks may therefore run at the same time, even the same callback: they must allow that.
//
// Which callback. The header byte of a record selects it, not the file or the family that the record comes by: any
// file, and the fault-reporting library, may bring all three kinds. So the callbacks of a family that is unregistered
// still run for records of their kind that come in on the other family's files. What a callable refers to must live
// until both families are unregistered, or until the callable has been replaced and is destroyed.
//
// Callbacks
//   - get references that are valid only during the call;
//   - must not call a registration or unregistration of the family whose read thread they run on: both may wait for
//     that thread, and a thread cannot wait for itself. Registering the other family is allowed, under the
//     one-at-a-time rule above;
//   - must not throw: an exception leaves the read thread and ends the process;
//   - must not call exit: the exit handlers wait for every callback to return;
//   - delay the file they are called for: while they run, its records wait in the publisher's pool;
//   - are copied once for each record, under a lock of the library's. Captures that std::function stores inline, such
//     as two pointers, cost no allocation; a captured string costs up to two. A copy constructor must not block, take a
//     lock or call one of the four operations.
// No lock that a callback takes may be held across an unregistration, which waits for the callbacks in flight, nor
// across a registration, which waits for what an earlier unregistration did not list.
//
// One reader per resource. The newest process (or subscription) that opens a resource takes its stream from the one
// before it, which stays connected and receives nothing; so does a monitor. When the newest one leaves, the publisher
// drops records until a reader opens the resource again.
//
// A lost connection. A lost PM_FAULT_RESOURCE or SEA_PM_FAULT_RESOURCE is reported to the fault-reporting library as a
// fault of the process manager (PM_LOST_EVENT_ID) and not reopened. Any other file is reopened for up to 5 seconds;
// after that its thread ends. Any other failure of a read, or no memory for the read buffer, ends that file's thread
// with a line in the log and no other sign. Either way one lost file is renewed only by stopping and starting its whole
// family: an unregistration and a new registration.
//
// Result codes (ResultCodes.h), of all four operations:
//   RESULT_OK           success (also when there was nothing to do)
//   RESULT_BAD_NAME     registration: at least one name was rejected (ResourceNames.h has the rule) or repeated;
//                       unregistration: at least one listed name is not subscribed
//   RESULT_OPEN_FAILED  registration: at least one file could not be opened (wins over RESULT_BAD_NAME)
// A code other than RESULT_OK undoes nothing: the files that could be opened are subscribed, the family counts as
// running, and a second registration then only replaces the callbacks. To try again, unregister first, then register.
// What the fault-reporting library says to its registration is only logged. The operations throw what allocation and
// thread creation throw; a thread that cannot be started ends a registration at that file, and an unregistration cleans
// up.
//
// Process-wide effects. The first registration installs a SIGPIPE handler in the place of the process's own. It logs
// the signal and nothing else, and stays for the life of the process; it has no SA_RESTART, so a system call that it
// interrupts may fail with EINTR. A host that unloads the library sets a SIGPIPE disposition of its own afterwards,
// because the handler goes away with the code. Resource files are opened without O_CLOEXEC: unless the platform adds
// it, a child that execs inherits their descriptors.
//
// Leaving. A client unregisters both families before the process exits or the library is unloaded: the fault-reporting
// library must not call into a destroyed subscriber. At exit the subscriber closes what is left and waits for its read
// threads. A child of fork has none of the read threads: it must leave by exec or _exit.
class __attribute__((visibility("default"))) ReportEventServer {
public:
    virtual ~ReportEventServer();

    // Returns the process's subscriber, made by the first call. Any thread, any time before exit handlers run.
    static ReportEventServer& GetInstance();

    // Subscribes to the fault-event files named by `groupOwnerList` and registers with the fault-reporting library.
    // `eventCallback` receives decoded fault events, `deviceCallback` raw device-management events; copies are stored,
    // and stay until the next registration of this family or the end of the subscriber. An empty callable is allowed:
    // its events are logged and dropped.
    // While the family is running, the call replaces the two callbacks, ignores the list and returns RESULT_OK. A
    // callback in flight goes on with the old callable; the old one is destroyed by this call or by the delivery that
    // uses it last.
    // The strings and the list are not used after the call.
    virtual int FmRegisterMidReportEventImpl(
        const std::vector<std::string>& groupOwnerList,
        const std::function<void(const EventInfo&, const UDSInfoForCpp&)>& eventCallback,
        const std::function<void(const dsmi_event&)>& deviceCallback) = 0;

    // Stops the fault family: every read thread of it ends, and the listed files are closed. Waits for the callbacks in
    // flight on the read threads of the listed files. Only the listed files are quiet when it returns: a thread of a
    // file that is not listed may deliver one record more, and keeps its descriptor until the family is started again
    // or the process ends; a second unregistration finds the family stopped and does nothing about it. So list every
    // file that was registered. Also ends the registration with the fault-reporting library. The callbacks stay stored.
    virtual int FmUnregisterReportEventImpl(const std::vector<std::string>& groupOwnerList) = 0;

    // Subscribes to the security-event file. Callback storage and repetition as in FmRegisterMidReportEventImpl; the
    // fault-reporting library is not involved.
    virtual int RegIDSEventReportHandlerImpl(const std::function<void(const dsmi_event&)>& securityCallback) = 0;

    // Stops the security family and waits for a callback in flight on its read thread. The callback stays stored.
    virtual int UnregIDSEventReportHandlerImpl() = 0;
};

#endif  // REPORT_EVENT_REPORT_EVENT_SERVER_H

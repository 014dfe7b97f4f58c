// Receiving events: the subscriber interface of libreport_event.
#ifndef REPORT_EVENT_REPORT_EVENT_SERVER_H
#define REPORT_EVENT_REPORT_EVENT_SERVER_H

#include <functional>
#include <string>
#include <vector>

#include "report_event/EventTypes.h"

// The one subscriber of a process. It receives two independent event families: fault events, from the resource files
// that the client names (normally the process manager's "dp:/res/pm/fm" and "sea:/res/pm/fm") and from the platform's
// fault-reporting library, and security events, from "dp:/res/iam/sec_event".
//
// Threads. The four operations run on the client's threads, one at a time: two of them must not run at once, whatever
// their family. A thread that is cancelled in one of them ends after it. Each subscribed file has one read thread of
// the library's, named "Rd_" and the file's name, on which it delivers that file's events in the order in which they
// were published. The fault-reporting library delivers on a thread of its own. Callbacks for different files may
// therefore run at the same time, even the same callback: they must allow that.
//
// Callbacks
//   - get references that are valid only during the call;
//   - must not call a registration or unregistration of the family whose read thread they run on: both may wait for
//     that thread, and a thread cannot wait for itself. Registering the other family is allowed, under the
//     one-at-a-time rule above;
//   - must not throw: an exception leaves the read thread and ends the process;
//   - must not call exit: the exit handlers wait for every callback to return;
//   - delay the file they are called for: while they run, its records wait in the publisher's pool.
// No lock that a callback takes may be held across an unregistration, which waits for the callbacks in flight.
//
// One reader per resource. The newest process (or subscription) that opens a resource takes its stream from the one
// before it, which stays connected and receives nothing; so does a monitor. When the newest one leaves, the publisher
// drops records until a reader opens the resource again.
//
// A lost connection. A lost "dp:/res/pm/fm" or "sea:/res/pm/fm" is reported to the fault-reporting library as a fault
// of the process manager (event 0x8C03A000) and not reopened. Any other file is reopened for up to 5 seconds; after
// that its thread ends. Either way one lost file is renewed only by stopping and starting its whole family: an
// unregistration and a new registration.
//
// Result codes, of all four operations:
//   0         success (also when there was nothing to do)
//   0xF10206  registration: at least one name was rejected (ResourceNames.h has the rule) or repeated; unregistration:
//             at least one listed name is not subscribed
//   0xF10005  registration: at least one file could not be opened (wins over 0xF10206)
// A code other than 0 undoes nothing: the files that could be opened are subscribed, the family counts as running, and
// a second registration then only replaces the callbacks. To try again, unregister first, then register. The operations
// throw what allocation and thread creation throw; a thread that cannot be started ends a registration at that file,
// and an unregistration cleans up.
//
// Process-wide effects. The first registration installs a SIGPIPE handler that logs the signal and nothing else; it
// stays for the life of the process. A host that unloads the library sets a SIGPIPE disposition of its own afterwards,
// because the handler goes away with the code.
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
    // While the family is running, the call replaces the two callbacks, ignores the list and returns 0. A callback in
    // flight goes on with the old callable; the old one is destroyed by this call or by the delivery that uses it last.
    // The strings and the list are not used after the call.
    virtual int FmRegisterMidReportEventImpl(
        const std::vector<std::string>& groupOwnerList,
        const std::function<void(const EventInfo&, const UDSInfoForCpp&)>& eventCallback,
        const std::function<void(const dsmi_event&)>& deviceCallback) = 0;

    // Stops the fault family: every read thread of it ends, and the listed files are closed. Waits for the callbacks in
    // flight on the read threads of the listed files. Only the listed files are quiet when it returns: a thread of a
    // file that is not listed may deliver one record more and keeps its descriptor until the family is started again, a
    // stop lists it, or the process exits. So list every file that was registered. Also ends the registration with the
    // fault-reporting library. The callbacks stay stored.
    virtual int FmUnregisterReportEventImpl(const std::vector<std::string>& groupOwnerList) = 0;

    // Subscribes to the security-event file. Callback storage and repetition as in FmRegisterMidReportEventImpl; the
    // fault-reporting library is not involved.
    virtual int RegIDSEventReportHandlerImpl(const std::function<void(const dsmi_event&)>& securityCallback) = 0;

    // Stops the security family and waits for a callback in flight on its read thread. The callback stays stored.
    virtual int UnregIDSEventReportHandlerImpl() = 0;
};

#endif  // REPORT_EVENT_REPORT_EVENT_SERVER_H

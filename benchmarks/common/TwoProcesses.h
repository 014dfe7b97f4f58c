// The two processes of a run: how the receiver starts the sender, how they agree, and the result they come to.
#ifndef REPORT_EVENT_BENCHMARKS_TWO_PROCESSES_H
#define REPORT_EVENT_BENCHMARKS_TWO_PROCESSES_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "benchmarks/common/Arrivals.h"
#include "benchmarks/common/Options.h"
#include "benchmarks/common/System.h"

namespace bench {

enum class Word : char { CONNECT = 'c', READY = 'r', SEND = 's' };

struct SenderReport {
    int64_t startNs;    // right before the first record
    double cpuSeconds;  // from there until everything was handed over
};

// One end of the line on which the two processes talk. It carries no records. Every wait fails when the peer is gone.
class Link {
public:
    explicit Link(FileDescriptor fd) : fd_(std::move(fd))
    {
    }
    static std::pair<Link, Link> MakePair();

    int Fd() const
    {
        return fd_.Get();
    }
    void Say(Word word);
    void Await(Word word);
    void SayReport(const SenderReport& report);
    SenderReport AwaitReport();
    void AwaitEnd();
    void Hang()
    {
        fd_.Close();
    }

private:
    FileDescriptor fd_;
};

// The sending process as the receiver holds it. It dies with its parent; the destructor ends it at the latest.
class SenderProcess {
public:
    // Forks; the child runs `body` with its end of the link and leaves without running exit handlers. Called before the
    // process has a second thread.
    explicit SenderProcess(const std::function<void(Link&)>& body);
    SenderProcess(const SenderProcess&) = delete;
    SenderProcess& operator=(const SenderProcess&) = delete;
    ~SenderProcess();

    pid_t Pid() const
    {
        return pid_;
    }
    Link& Line()
    {
        return link_;
    }
    // Lets the sender go and throws if it failed.
    void Finish();

private:
    explicit SenderProcess(std::pair<Link, Link> links, const std::function<void(Link&)>& body);

    pid_t pid_ = -1;
    Link link_;
};

constexpr int INHERITED_LINK_FD = 100;  // out of the way of everything else

// Starts this very program with these arguments, its name the first, in place of a body: it finds its end of the line
// at INHERITED_LINK_FD. This process may have threads.
std::unique_ptr<SenderProcess> StartAgain(std::vector<std::string> arguments);

// Blocks the signals that end a program by hand, so that Supervise sees them and destructors clean up. Called before
// the process has a second thread or a child.
void HoldEndingSignals();

struct Result {
    SenderReport sender{};
    double receiverCpuSeconds = 0;  // at the start of sending
};

// Starts the sending of a sender that is ready and waits until all has arrived, no more will arrive, or the records
// stop coming (then some are lost, which the account shows). Throws when the sender fails or the user ends the run.
Result Supervise(Link& link, const Options& options, const Arrivals& arrivals);

// Prints the one line of JSON. The receiving thread has ended. Returns the exit code: 1 when records were lost.
int PrintResult(const char* program, const Options& options, const Result& result, Arrivals& arrivals);

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_TWO_PROCESSES_H

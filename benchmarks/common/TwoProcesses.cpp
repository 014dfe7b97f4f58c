#include "benchmarks/common/TwoProcesses.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace bench {
namespace {

constexpr int LOOK_EVERY_MS = 1000;
constexpr double SILENCE_MIN_S = 10;   // records that stop for this long are not coming
constexpr double SILENCE_PERIODS = 5;  // or, in a slow paced run, for this many periods
constexpr time_t ANSWER_TIMEOUT_S = 60;
constexpr int SILENCE_AFTER_REPORT_S = 3;  // everything was sent and nothing moves any more

sigset_t EndingSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals, signal);
    }
    return signals;
}

template <class Message>
void SendMessage(int fd, const Message& message)
{
    Check(send(fd, &message, sizeof(message), MSG_NOSIGNAL), "the other process");
}

template <class Message>
Message ReceiveMessage(int fd)
{
    Message message{};
    const ssize_t got = Check(recv(fd, &message, sizeof(message), 0), "the other process");
    if (got != ssize_t{sizeof(message)}) {
        throw std::runtime_error(got == 0 ? "the other process ended early"
                                          : "the processes do not understand each other");
    }
    return message;
}

}  // namespace

std::pair<Link, Link> Link::MakePair()
{
    int fds[2];
    Check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds), "socketpair");
    return {Link(FileDescriptor(fds[0])), Link(FileDescriptor(fds[1]))};
}

void Link::Say(Word word)
{
    SendMessage(fd_.Get(), word);
}

void Link::Await(Word word)
{
    if (ReceiveMessage<Word>(fd_.Get()) != word) {
        throw std::runtime_error("the processes do not understand each other");
    }
}

void Link::SayReport(const SenderReport& report)
{
    SendMessage(fd_.Get(), report);
}

SenderReport Link::AwaitReport()
{
    return ReceiveMessage<SenderReport>(fd_.Get());
}

void Link::AwaitEnd()
{
    char nothing;
    Check(recv(fd_.Get(), &nothing, sizeof(nothing), 0), "the other process");
}

SenderProcess::SenderProcess(const std::function<void(Link&)>& body) : SenderProcess(Link::MakePair(), body)
{
}

SenderProcess::SenderProcess(std::pair<Link, Link> links, const std::function<void(Link&)>& body)
    : link_(std::move(links.first))
{
    const pid_t parent = getpid();
    pid_ = Check(fork(), "fork");
    if (pid_ != 0) {
        const timeval patience{ANSWER_TIMEOUT_S, 0};
        Check(setsockopt(link_.Fd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)), "setsockopt");
        return;
    }
    link_.Hang();
    int code = EXIT_FAILURE;
    try {
        Check(prctl(PR_SET_PDEATHSIG, SIGKILL), "prctl");
        if (getppid() == parent) {
            body(links.second);
            code = EXIT_SUCCESS;
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sender: %s\n", error.what());
    }
    _exit(code);
}

SenderProcess::~SenderProcess()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

void SenderProcess::Finish()
{
    link_.Hang();
    int status = 0;
    Check(waitpid(std::exchange(pid_, -1), &status, 0), "waitpid");
    if (status != 0) {
        throw std::runtime_error("the sender failed");
    }
}

std::unique_ptr<SenderProcess> StartAgain(std::vector<std::string> arguments)
{
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    return std::make_unique<SenderProcess>([&](Link& link) {
        Check(dup2(link.Fd(), INHERITED_LINK_FD), "dup2");
        Check(fcntl(INHERITED_LINK_FD, F_SETFD, 0), "fcntl");  // it may have been that very descriptor
        execv("/proc/self/exe", argv.data());
        ThrowErrno("cannot start this program again");
    });
}

void HoldEndingSignals()
{
    const sigset_t signals = EndingSignals();
    Check(sigprocmask(SIG_BLOCK, &signals, nullptr), "sigprocmask");
}

Result Supervise(Link& link, const Options& options, const Arrivals& arrivals)
{
    const sigset_t signals = EndingSignals();
    const FileDescriptor signalFd(Check(signalfd(-1, &signals, SFD_CLOEXEC), "signalfd"));

    Result result;
    result.receiverCpuSeconds = CpuSeconds();
    link.Say(Word::SEND);

    pollfd watched[] = {{signalFd.Get(), POLLIN, 0}, {link.Fd(), POLLIN, 0}, {arrivals.DoneFd(), POLLIN, 0}};
    double patience = std::max(SILENCE_MIN_S, options.mode == Mode::LATENCY ? SILENCE_PERIODS / options.rateHz : 0.0);
    bool reported = false;
    bool done = false;
    uint64_t progress = 0;
    int64_t lastMoveNs = NowNs();
    while (!reported || !done) {
        if (Check(poll(watched, 3, LOOK_EVERY_MS), "poll") == 0) {
            const uint64_t now = arrivals.Progress();
            if (now != progress) {
                progress = now;
                lastMoveNs = NowNs();
            } else if (double(NowNs() - lastMoveNs) > patience * 1e9) {
                break;
            }
            continue;
        }
        if (watched[0].revents != 0) {
            throw std::runtime_error("ended by a signal");
        }
        if (watched[1].revents != 0) {
            result.sender = link.AwaitReport();
            reported = true;
            watched[1].fd = -1;
            patience = SILENCE_AFTER_REPORT_S;
            lastMoveNs = NowNs();
        }
        if (watched[2].revents != 0) {
            done = true;
            watched[2].fd = -1;
        }
    }
    if (!reported) {
        throw std::runtime_error("records stopped coming after " + std::to_string(progress));
    }
    return result;
}

int PrintResult(const char* program, const Options& options, const Result& result, Arrivals& arrivals)
{
    arrivals.Finish();  // where the records stopped coming
    const double cpuSeconds = result.sender.cpuSeconds + arrivals.EndCpuSeconds() - result.receiverCpuSeconds;
    const double cpuPerMillion = cpuSeconds * 1e6 / double(std::max<uint64_t>(arrivals.Taken(), 1));
    const auto lost = static_cast<unsigned long long>(arrivals.Lost());
    if (options.mode == Mode::LATENCY) {
        const Histogram& latencies = arrivals.Latencies();
        std::printf(
            "{\"p50_us\":%.2f,\"p99_us\":%.2f,\"max_us\":%.2f,\"same_processor\":%.2f,\"lost\":%llu,"
            "\"cpu_s_per_million\":%.4f}\n",
            latencies.Quantile(0.5) * 1e-3, latencies.Quantile(0.99) * 1e-3, double(latencies.Max()) * 1e-3,
            double(arrivals.SamePlace()) / double(options.count), lost, cpuPerMillion);
    } else {
        const double seconds = double(arrivals.EndNs() - result.sender.startNs) * 1e-9;
        std::printf("{\"records_per_s\":%.0f,\"lost\":%llu,\"cpu_s_per_million\":%.4f}\n",
                    double(arrivals.Taken()) / seconds, lost, cpuPerMillion);
    }
    std::fflush(stdout);
    if (lost != 0) {
        std::fprintf(stderr, "%s: %llu records lost, repeated, out of order or damaged\n", program, lost);
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

}  // namespace bench

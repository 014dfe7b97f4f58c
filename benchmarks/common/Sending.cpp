#include "benchmarks/common/Sending.h"

#include <time.h>

#include <algorithm>

namespace bench {
namespace {

constexpr int64_t SECOND_NS = 1000000000;
constexpr int64_t PAUSE_MIN_NS = 5000;
constexpr int64_t PAUSE_MAX_NS = 5000000;

void SleepUntil(int64_t deadlineNs)
{
    const timespec deadline{static_cast<time_t>(deadlineNs / SECOND_NS), static_cast<long>(deadlineNs % SECOND_NS)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

void SendAtFullSpeed(uint64_t count, StampedRecord& record, Sender& sender)
{
    for (uint64_t number = 0; number < count; ++number) {
        record.Stamp(number);
        sender.Send(record.Data(), record.Size());
    }
}

void SendPaced(uint64_t count, double rateHz, StampedRecord& record, Sender& sender)
{
    const int64_t start = NowNs();
    for (uint64_t number = 0; number < count; ++number) {
        record.Stamp(number);
        SleepUntil(start + static_cast<int64_t>(double(number + 1) * double(SECOND_NS) / rateHz));
        record.StampTime(TimeAndPlace(NowNs(), sched_getcpu()));
        sender.Send(record.Data(), record.Size());
    }
}

}  // namespace

void PoolPause::Wait()
{
    if (sentSincePause_ < blocks_ / 4) {
        pauseNs_ = std::min(pauseNs_ * 2, PAUSE_MAX_NS);
    } else if (sentSincePause_ > blocks_ * 3 / 4) {
        pauseNs_ = std::max(pauseNs_ / 2, PAUSE_MIN_NS);
    }
    sentSincePause_ = 0;
    SleepUntil(NowNs() + pauseNs_);
}

void RunSender(Link& link, const Options& options, StampedRecord record,
               const std::function<std::unique_ptr<Sender>()>& connect)
{
    link.Await(Word::CONNECT);
    std::unique_ptr<Sender> sender = connect();
    link.Say(Word::READY);
    link.Await(Word::SEND);

    SenderReport report{NowNs(), CpuSeconds()};
    if (options.mode == Mode::LATENCY) {
        SendPaced(options.warmUp + options.count, options.rateHz, record, *sender);
    } else {
        SendAtFullSpeed(options.count, record, *sender);
    }
    sender.reset();
    report.cpuSeconds = CpuSeconds() - report.cpuSeconds;
    link.SayReport(report);
    link.AwaitEnd();
}

}  // namespace bench

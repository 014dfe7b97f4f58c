// The receiver's account of a run: which records came, whether they are whole, how long they took, when the last came.
#ifndef REPORT_EVENT_BENCHMARKS_ARRIVALS_H
#define REPORT_EVENT_BENCHMARKS_ARRIVALS_H

#include <sys/eventfd.h>

#include <atomic>
#include <cstdint>

#include "benchmarks/common/Histogram.h"
#include "benchmarks/common/Options.h"
#include "benchmarks/common/System.h"

namespace bench {

// One thread takes records; the thread that supervises the run waits for DoneFd and looks at Progress. Everything else
// is read once the receiving thread has been joined.
class Arrivals {
public:
    explicit Arrivals(const Options& options)
        : warmUp_(options.warmUp),
          count_(options.warmUp + options.count),
          latencyRun_(options.mode == Mode::LATENCY),
          done_(Check(eventfd(0, EFD_CLOEXEC), "eventfd"))
    {
    }

    // When and where a record reached the receiver; a throughput run does not pay for the clock.
    uint64_t Entry() const
    {
        return latencyRun_ ? TimeAndPlace(NowNs(), sched_getcpu()) : 0;
    }

    // `check` expects record number Next() when called and when left.
    template <class Checker>
    void Take(Checker& check, const typename Checker::Received& received, uint64_t entry)
    {
        bool whole = check.Matches(received);
        if (whole) {
            ++next_;
        } else {
            whole = TakeUnexpected(check, received);
        }
        if (whole && latencyRun_ && next_ > warmUp_) {
            const uint64_t sent = check.TimeIn(received);
            latencies_.Add(NsBetween(sent, entry));
            samePlace_ += AtTheSamePlace(sent, entry) ? 1 : 0;
        }
        check.Expect(next_);
        // Relaxed: the supervisor only wants to see that the figure moves.
        progress_.store(++taken_, std::memory_order_relaxed);
        if (next_ >= count_) {
            Finish();
        }
    }

    // The last record has come, or no more will come.
    void Finish()
    {
        if (endNs_ == 0) {
            endNs_ = NowNs();
            endCpuSeconds_ = CpuSeconds();
            eventfd_write(done_.Get(), 1);
        }
    }

    int DoneFd() const
    {
        return done_.Get();
    }
    uint64_t Progress() const
    {
        return progress_.load(std::memory_order_relaxed);
    }

    // Missing, repeated, out of order or damaged.
    uint64_t Lost() const
    {
        return lost_ + (count_ > next_ ? count_ - next_ : 0);
    }
    uint64_t Taken() const
    {
        return taken_;
    }
    int64_t EndNs() const
    {
        return endNs_;
    }
    double EndCpuSeconds() const
    {
        return endCpuSeconds_;
    }
    const Histogram& Latencies() const
    {
        return latencies_;
    }
    // Of the records whose latency counts: how many were received on the processor that had sent them.
    uint64_t SamePlace() const
    {
        return samePlace_;
    }

private:
    // A record that is not the next one, whole: is it whole at all, and where does it belong? Returns whether it is
    // whole.
    template <class Checker>
    bool TakeUnexpected(Checker& check, const typename Checker::Received& received)
    {
        const uint64_t number = check.NumberIn(received);
        check.Expect(number);
        const bool whole = number < count_ && check.Matches(received);
        if (whole && number > next_) {
            lost_ += number - next_;
            next_ = number + 1;
        } else {
            ++lost_;
            next_ += whole ? 0 : 1;  // repeated or late; or damaged, in the place of the next one
        }
        return whole;
    }

    const uint64_t warmUp_;
    const uint64_t count_;  // the warm-up included
    const bool latencyRun_;
    FileDescriptor done_;
    uint64_t next_ = 0;
    uint64_t taken_ = 0;
    uint64_t lost_ = 0;
    int64_t endNs_ = 0;
    double endCpuSeconds_ = 0;
    Histogram latencies_;
    uint64_t samePlace_ = 0;
    std::atomic<uint64_t> progress_{0};
};

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_ARRIVALS_H

// The sending half of a run: numbers the records, paces them, hands them to a transport.
#ifndef REPORT_EVENT_BENCHMARKS_SENDING_H
#define REPORT_EVENT_BENCHMARKS_SENDING_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "benchmarks/common/Options.h"
#include "benchmarks/common/StampedRecord.h"
#include "benchmarks/common/TwoProcesses.h"

namespace bench {

// The sending end of a transport. Send waits while there is no room; nothing is ever dropped. Destruction flushes.
class Sender {
public:
    virtual ~Sender() = default;
    virtual void Send(const unsigned char* data, size_t size) = 0;
};

// How long a sender stays away when its pool is empty. An attempt may cost a line in the system log, so the pause aims
// at about half a pool: long enough that few attempts fail, short enough that the receiver does not run dry.
class PoolPause {
public:
    explicit PoolPause(size_t blocks) : blocks_(blocks)
    {
    }

    void Sent()
    {
        ++sentSincePause_;
    }
    void Wait();

private:
    const size_t blocks_;
    size_t sentSincePause_ = 0;
    int64_t pauseNs_ = 50000;
};

// The life of the sending process: connect when asked, send when asked, report, stay until the receiver has all.
void RunSender(Link& link, const Options& options, StampedRecord record,
               const std::function<std::unique_ptr<Sender>()>& connect);

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_SENDING_H

// Moves events from the outbox to the broker, on a thread of its own, over as many connections as it takes.
#ifndef REPORT_EVENT_TOOLS_FORWARD_SENDER_H
#define REPORT_EVENT_TOOLS_FORWARD_SENDER_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <thread>

#include "tools/ToolSupport.h"
#include "tools/forward/Connection.h"
#include "tools/forward/Failure.h"
#include "tools/forward/Outbox.h"

namespace tools::forward {

// One level of a topic: bytes other than letters, digits, '-', '.', '_' and '~' as %XX.
std::string TopicLevel(std::string_view text);

class Sender {
public:
    // Messages that the broker has, maybe, but the outbox still has, too: so many may come twice after a connection or
    // a process has ended.
    static constexpr size_t WINDOW = 100;

    // Events of the topics `prefix`/`host`/... `outbox` outlives it.
    Sender(Outbox& outbox, BrokerOptions broker, const std::string& prefix, const std::string& host);
    ~Sender();
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    void Start();
    // Waits for the answers to what is under way, for at most two seconds, and ends. False when the thread is stuck, as
    // in looking up a host: then neither this nor the outbox may be destroyed.
    bool Stop();

    const Failure& GivenUp() const
    {
        return failure_;
    }

private:
    using Clock = std::chrono::steady_clock;

    struct Sent {
        int message;  // its number in the connection
        int64_t sequence;
        std::string source;
        bool isAcknowledged;
    };

    void Run();
    void KeepConnected();
    bool ConnectOnce();
    void Converse(Connection& connection);
    void AwaitAcceptance(Connection& connection);
    bool SendNext(Connection& connection);
    void TakeAnswers(Connection& connection);
    void RemoveAcknowledged(bool all);
    void TellOnce(const std::string& state);

    Outbox& outbox_;
    const BrokerOptions broker_;
    const std::string address_;
    const std::string topicStart_;
    const std::string objectEnd_;  // up to the number
    std::atomic<bool> isStopping_{false};
    Flag stop_;  // raised behind it
    Flag ended_;
    Failure failure_;
    std::thread thread_;

    // Of the thread.
    int version_ = Connection::NEWER;
    bool wasOpen_ = false;      // a connection, ever
    bool wasAccepted_ = false;  // an event, ever
    std::string toldState_;
    std::deque<Sent> sent_;  // over the present connection, and still in the outbox
    int64_t lastSent_ = 0;
    Clock::time_point lastRemoval_{};
};

}  // namespace tools::forward

#endif  // REPORT_EVENT_TOOLS_FORWARD_SENDER_H

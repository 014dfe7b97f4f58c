#include "tools/forward/Sender.h"

#include <poll.h>

#include <algorithm>
#include <random>
#include <utility>

#include "tools/EventJson.h"

namespace tools::forward {

namespace {

using Milliseconds = std::chrono::milliseconds;

constexpr Milliseconds FIRST_PAUSE{500};
constexpr Milliseconds LONGEST_PAUSE{30000};
constexpr std::chrono::seconds ANSWER_TIME{30};  // for the broker to accept a connection
constexpr std::chrono::seconds STOP_TIME{2};
constexpr std::chrono::seconds STUCK_TIME{3};
constexpr Milliseconds TURN{1000};  // how often the MQTT library looks after its keep-alive

constexpr Milliseconds STOP_TURN{50};

// What leaves the outbox together, if so much comes in so short a time, and what is at least read together if there is
// so much.
constexpr size_t REMOVED_TOGETHER = Sender::WINDOW / 2;
constexpr Milliseconds REMOVAL_TIME{100};
constexpr size_t SENT_TOGETHER = Sender::WINDOW / 2;

// While nothing can be sent until more answers have come, they gather for so long: each would be a wake-up.
constexpr std::chrono::microseconds GATHERING_TIME{500};

bool WaitFor(const Flag& flag, Milliseconds timeout)
{
    pollfd waited{flag.Descriptor(), POLLIN, 0};
    return poll(&waited, 1, static_cast<int>(timeout.count())) > 0;
}

// A fleet that has lost its broker does not come back all at once.
Milliseconds AboutHalfTo(Milliseconds pause)
{
    static thread_local std::minstd_rand random(std::random_device{}());
    return Milliseconds(std::uniform_int_distribution<int64_t>(pause.count() / 2, pause.count())(random));
}

BrokerOptions Named(BrokerOptions broker, const Outbox& outbox, const std::string& topicStart)
{
    broker.client = "report-event-" + outbox.Identifier();
    broker.statusTopic = topicStart + "status";
    return broker;
}

}  // namespace

std::string TopicLevel(std::string_view text)
{
    constexpr std::string_view PLAIN = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
    std::string level;
    for (const char c : text) {
        if (PLAIN.find(c) != PLAIN.npos) {
            level += c;
        } else {
            constexpr char DIGITS[] = "0123456789ABCDEF";
            const auto byte = static_cast<unsigned char>(c);
            level += {'%', DIGITS[byte / 16], DIGITS[byte % 16]};
        }
    }
    return level;
}

Sender::Sender(Outbox& outbox, BrokerOptions broker, const std::string& prefix, const std::string& host)
    : outbox_(outbox),
      broker_(Named(std::move(broker), outbox, prefix + "/" + TopicLevel(host) + "/")),
      address_((broker_.isSecure ? "mqtts://" : "mqtt://") + broker_.host + ":" + std::to_string(broker_.port)),
      topicStart_(prefix + "/" + TopicLevel(host) + "/"),
      objectEnd_(",\"host\":" + ToLine(host) + ",\"outbox\":\"" + outbox.Identifier() + "\",\"seq\":")
{
}

Sender::~Sender()
{
    Stop();
}

void Sender::Start()
{
    thread_ = std::thread([this] { Run(); });
}

bool Sender::Stop()
{
    isStopping_ = true;
    stop_.Raise();
    if (thread_.joinable()) {
        if (!WaitFor(ended_, STUCK_TIME)) {
            return false;
        }
        thread_.join();
    }
    return true;
}

void Sender::Run()
{
    try {
        KeepConnected();
    } catch (const std::exception& error) {
        failure_.Tell(error.what());
    }
    ended_.Raise();
}

// Throws what no further connection can help.
void Sender::KeepConnected()
{
    Milliseconds pause = FIRST_PAUSE;
    while (!isStopping_) {
        const Clock::time_point start = Clock::now();
        if (!ConnectOnce()) {
            continue;
        }
        // One that held for longer than the last pause is no sign of lasting trouble.
        pause = Clock::now() - start > pause ? FIRST_PAUSE : std::min(2 * pause, LONGEST_PAUSE);
        WaitFor(stop_, AboutHalfTo(pause));
    }
}

// A connection from start to end. False when another may be tried at once.
bool Sender::ConnectOnce()
{
    bool isOpen = false;
    bool isVersionRefused = false;
    try {
        Connection connection(broker_, version_);
        try {
            Converse(connection);
        } catch (const ConnectionError&) {
            isOpen = connection.IsOpen();
            isVersionRefused = connection.IsVersionRefused();
            TakeAnswers(connection);  // those that came with its end; a refusal says more than that it is lost
            throw;
        }
    } catch (const ConnectionError& error) {
        RemoveAcknowledged(true);
        if (isVersionRefused && version_ == Connection::NEWER) {
            version_ = Connection::OLDER;
            return false;
        }
        // What has worked before may work again, and meanwhile events go into the outbox.
        const bool hasWorked = isOpen ? wasAccepted_ : wasOpen_;
        if (error.IsHopeless() && !hasWorked) {
            throw std::runtime_error(address_ + ": " + error.what());
        }
        TellOnce(address_ + ": " + error.what() + "; trying again");
    }
    return true;
}

void Sender::Converse(Connection& connection)
{
    sent_.clear();
    lastSent_ = 0;
    bool mayHaveMore = true;
    AwaitAcceptance(connection);
    while (!isStopping_) {
        if (mayHaveMore && sent_.size() <= WINDOW - SENT_TOGETHER) {
            mayHaveMore = SendNext(connection);
        }
        if (sent_.size() > WINDOW - SENT_TOGETHER) {
            std::this_thread::sleep_for(GATHERING_TIME);
        }
        const Milliseconds turn = sent_.empty() ? TURN : REMOVAL_TIME;
        mayHaveMore = connection.Wait(mayHaveMore ? -1 : outbox_.Arrival(), stop_.Descriptor(), turn) || mayHaveMore;
        TakeAnswers(connection);
    }
    const Clock::time_point deadline = Clock::now() + STOP_TIME;
    while (!sent_.empty() && Clock::now() < deadline) {
        connection.Wait(-1, -1, STOP_TURN);
        TakeAnswers(connection);
    }
    RemoveAcknowledged(true);
    if (connection.IsOpen()) {
        connection.Close();
    }
}

void Sender::AwaitAcceptance(Connection& connection)
{
    const Clock::time_point deadline = Clock::now() + ANSWER_TIME;
    while (!connection.IsOpen() && !isStopping_) {
        connection.Wait(-1, stop_.Descriptor(), TURN);
        if (Clock::now() > deadline) {
            throw ConnectionError("the broker does not answer", ConnectionError::Hope::TIME_CAN_HELP);
        }
    }
    if (connection.IsOpen()) {
        wasOpen_ = true;
        TellOnce("connected to " + address_);
    }
}

// False when the outbox has no more than that.
bool Sender::SendNext(Connection& connection)
{
    const size_t room = WINDOW - sent_.size();
    std::vector<StoredEvent> events = outbox_.ReadAfter(lastSent_, room);
    const bool areSeveral = events.size() > 1;
    if (areSeveral) {
        connection.HoldBack(true);
    }
    for (StoredEvent& event : events) {
        event.object.pop_back();  // the brace, behind which nothing stands
        event.object += objectEnd_ + std::to_string(event.sequence) + '}';
        const int message = connection.Publish(topicStart_ + event.source, event.object);
        sent_.push_back({message, event.sequence, std::move(event.source), false});
        lastSent_ = event.sequence;
    }
    if (areSeveral) {
        connection.HoldBack(false);
    }
    return events.size() == room;
}

void Sender::TakeAnswers(Connection& connection)
{
    for (const Connection::Answer& answer : connection.TakeAnswers()) {
        const auto sent = std::find_if(sent_.begin(), sent_.end(),
                                       [&answer](const Sent& one) { return one.message == answer.number; });
        if (sent == sent_.end()) {
            continue;  // it was the status
        }
        if (answer.isRefusal) {
            throw connection.RefusalOf(topicStart_ + sent->source, answer);
        }
        sent->isAcknowledged = true;
        wasAccepted_ = true;
    }
    RemoveAcknowledged(false);
}

// From the outbox: `all`, or only when that is worth it.
void Sender::RemoveAcknowledged(bool all)
{
    const auto end = std::find_if(sent_.begin(), sent_.end(), [](const Sent& one) { return !one.isAcknowledged; });
    const auto count = static_cast<size_t>(end - sent_.begin());
    const Clock::time_point now = Clock::now();
    if (count == 0 || (!all && count < REMOVED_TOGETHER && now - lastRemoval_ < REMOVAL_TIME)) {
        return;
    }
    lastRemoval_ = now;
    outbox_.Remove(sent_[count - 1].sequence);
    sent_.erase(sent_.begin(), end);
}

void Sender::TellOnce(const std::string& state)
{
    if (std::exchange(toldState_, state) != state) {
        Notify(state);
    }
}

}  // namespace tools::forward

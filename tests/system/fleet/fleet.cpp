// Plays many machines against one real broker: outboxes to which events are added at a steady rate, each with a sender
// of its own, and connections that are lost at random moments. A collector sees to it that nothing is lost or out of
// order. Prints the figures; fails when something is amiss.
// Usage: fleet OUTBOXES EVENTS_PER_SECOND SECONDS RECONNECTIONS
#include <mosquitto.h>
#include <sys/resource.h>
#include <sys/times.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "tests/system/Broker.h"
#include "tools/forward/Sender.h"

namespace system_test {
namespace {

using Clock = std::chrono::steady_clock;
using tools::forward::BrokerOptions;
using tools::forward::Outbox;
using tools::forward::Sender;

struct Machine {
    Machine(const std::string& path, const BrokerOptions& broker, const std::string& host)
        : outbox(path, 1000000, false), sender(outbox, broker, "report_event", host)
    {
        sender.Start();
    }
    Outbox outbox;
    Sender sender;
};

// Subscribed to all events, on a thread of the MQTT library.
class Collector {
public:
    explicit Collector(int port) : client_(mosquitto_new("collector", true, this))
    {
        mosquitto_connect_callback_set(client_, [](mosquitto* client, void*, int) {
            mosquitto_subscribe(client, nullptr, "report_event/+/+/+", 1);
        });
        mosquitto_subscribe_callback_set(client_, [](mosquitto*, void* collector, int, int, const int*) {
            static_cast<Collector*>(collector)->isReady_ = true;
        });
        mosquitto_message_callback_set(client_, [](mosquitto*, void* collector, const mosquitto_message* message) {
            static_cast<Collector*>(collector)->Take(
                {static_cast<const char*>(message->payload), static_cast<size_t>(message->payloadlen)});
        });
        mosquitto_connect(client_, "127.0.0.1", port, 60);
        mosquitto_loop_start(client_);
        Await([this] { return isReady_.load(); });
    }
    ~Collector()
    {
        mosquitto_disconnect(client_);
        mosquitto_loop_stop(client_, false);
        mosquitto_destroy(client_);
    }
    Collector(const Collector&) = delete;

    bool HasAll(uint64_t count)
    {
        return Await([&] { return received_ >= count; });
    }
    // Of a collector that gets no more.
    uint64_t repeats_ = 0;
    uint64_t gaps_ = 0;
    std::vector<double> milliseconds_;
    std::atomic<uint64_t> received_{0};

private:
    void Take(std::string_view payload)
    {
        const Json event = Json::parse(payload);
        const int64_t sequence = event["seq"];
        int64_t& last = last_[event["outbox"]];
        if (sequence <= last) {
            ++repeats_;
            return;
        }
        gaps_ += sequence == last + 1 ? 0 : 1;
        last = sequence;
        const Clock::duration age = Clock::now().time_since_epoch() - Clock::duration(event["sent"].get<int64_t>());
        milliseconds_.push_back(std::chrono::duration<double, std::milli>(age).count());
        ++received_;
    }

    mosquitto* const client_;
    std::atomic<bool> isReady_{false};
    std::map<std::string, int64_t> last_;
};

// The broker ends the connection of a client when another one comes with its identifier.
void Interrupt(const Machine& machine, int port)
{
    mosquitto* const other = mosquitto_new(("report-event-" + machine.outbox.Identifier()).c_str(), true, nullptr);
    if (mosquitto_connect(other, "127.0.0.1", port, 60) == MOSQ_ERR_SUCCESS) {
        mosquitto_loop(other, 100, 1);
        mosquitto_disconnect(other);
    }
    mosquitto_destroy(other);
}

std::string StatusOf(int process, const std::string& key)
{
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    std::string line;
    while (std::getline(status, line) && line.rfind(key, 0) != 0) {
    }
    return line.substr(line.find_first_not_of(" \t", key.size() + 1));
}

double ProcessorSeconds(int process)
{
    std::ifstream stat("/proc/" + std::to_string(process) + "/stat");
    const std::vector<std::string> words(std::istream_iterator<std::string>(stat), {});
    return (std::stod(words.at(13)) + std::stod(words.at(14))) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

struct Plan {
    size_t outboxes;
    size_t rate;
    size_t seconds;
    size_t reconnections;
};

// Adds the events of all machines, spread over time, with interruptions in between.
void Play(const Plan& plan, std::vector<std::unique_ptr<Machine>>& machines, int port)
{
    std::minstd_rand random(std::random_device{}());
    const size_t total = plan.outboxes * plan.rate * plan.seconds;
    std::vector<size_t> moments(plan.reconnections);
    std::generate(moments.begin(), moments.end(), [&] { return random() % total; });
    std::sort(moments.begin(), moments.end());
    std::thread interrupting;
    const auto start = Clock::now();
    size_t next = 0;
    std::atomic<size_t> done{0};
    interrupting = std::thread([&] {
        for (const size_t moment : moments) {
            while (done < moment) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            Interrupt(*machines[random() % machines.size()], port);
        }
    });
    for (; next < total; done = ++next) {
        std::this_thread::sleep_until(start +
                                      next * std::chrono::nanoseconds(1000000000) / (plan.outboxes * plan.rate));
        const std::string sent = std::to_string(Clock::now().time_since_epoch().count());
        machines[next % machines.size()]->outbox.Append(
            "simulated/device",
            "{\"kind\":\"device\",\"sent\":" + sent + ",\"eventName\":\"" + std::string(250, 'n') + "\"}");
    }
    interrupting.join();
}

int Run(const Plan& plan)
{
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    mosquitto_lib_init();
    const PrivateDirectory directory;
    Broker broker(directory);
    broker.Start();
    BrokerOptions options;
    options.host = "127.0.0.1";
    options.port = broker.Port();
    Collector collector(broker.Port());
    const std::string before = StatusOf(broker.Id(), "VmRSS");
    std::vector<std::unique_ptr<Machine>> machines;
    for (size_t i = 0; i < plan.outboxes; ++i) {
        const std::string host = "machine-" + std::to_string(i);
        machines.push_back(std::make_unique<Machine>(directory / host, options, host));
    }
    Play(plan, machines, broker.Port());
    const size_t total = plan.outboxes * plan.rate * plan.seconds;
    const bool hasAll = collector.HasAll(total);
    std::vector<double> times = collector.milliseconds_;
    std::sort(times.begin(), times.end());
    times.resize(std::max<size_t>(times.size(), 1));
    std::cout << collector.received_ << " of " << total << " events received, " << collector.gaps_ << " gaps, "
              << collector.repeats_ << " repeats\n"
              << "from outbox to collector: p50 " << times[times.size() / 2] << " ms, p99 "
              << times[times.size() * 99 / 100] << " ms, longest " << times.back() << " ms\n"
              << "broker: memory " << before << " idle, " << StatusOf(broker.Id(), "VmRSS") << " with " << plan.outboxes
              << " connections; " << ProcessorSeconds(broker.Id()) << " s of processor time in " << plan.seconds
              << " s\n";
    for (const auto& machine : machines) {
        machine->sender.Stop();
    }
    return hasAll && collector.gaps_ == 0 && collector.received_ == total ? 0 : 1;
}

}  // namespace
}  // namespace system_test

int main(int argc, char** argv)
{
    if (argc != 5) {
        std::cerr << "usage: fleet OUTBOXES EVENTS_PER_SECOND SECONDS RECONNECTIONS\n";
        return 2;
    }
    const auto number = [argv](int place) { return static_cast<size_t>(std::stoul(argv[place])); };
    return system_test::Run({number(1), number(2), number(3), number(4)});
}

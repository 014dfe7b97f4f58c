// Plays many machines against one real broker: outboxes to which events are added at a steady rate, each with a sender
// of its own, and connections that are lost at random moments. Prints what a collector receives, and when; fails when
// something is lost or out of order.
// Usage: fleet OUTBOXES EVENTS_PER_SECOND SECONDS RECONNECTIONS
#include <mosquitto.h>
#include <sys/resource.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <thread>

#include "tests/system/Broker.h"
#include "tools/forward/Sender.h"

namespace system_test {
namespace {

using Clock = std::chrono::system_clock;  // which the collector stamps with
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

struct Plan {
    size_t outboxes;
    size_t rate;
    size_t seconds;
    size_t reconnections;

    size_t Total() const
    {
        return outboxes * rate * seconds;
    }
};

// The broker ends the connection of a client when another one comes with its identifier.
void Interrupt(const Machine& machine, const Broker& broker)
{
    const std::string client = "report-event-" + machine.outbox.Identifier();
    Start("mosquitto_pub", "-p " + std::to_string(broker.Port()) + " -t interrupted -n -i " + client)->Wait();
}

// Adds the events of all machines, spread over time, with interruptions in between.
void Play(const Plan& plan, const std::vector<std::unique_ptr<Machine>>& machines, const Broker& broker)
{
    std::minstd_rand random(std::random_device{}());
    const auto start = Clock::now();
    const std::chrono::nanoseconds duration = std::chrono::seconds(plan.seconds);
    size_t interruptions = plan.reconnections;
    for (size_t next = 0; next < plan.Total(); ++next) {
        std::this_thread::sleep_until(start + next * duration / plan.Total());
        const std::string sent = std::to_string(Clock::now().time_since_epoch().count());
        machines[next % machines.size()]->outbox.Append(
            "simulated/device",
            "{\"kind\":\"device\",\"sent\":" + sent + ",\"eventName\":\"" + std::string(250, 'n') + "\"}");
        if (random() % (plan.Total() - next) < interruptions) {
            --interruptions;
            Interrupt(*machines[random() % machines.size()], broker);
        }
    }
}

// What the collector has received: lines of the time in seconds and the event.
struct Received {
    size_t repeats = 0;
    size_t gaps = 0;
    std::vector<double> milliseconds;  // that each event took, in order
};

Received Evaluate(const Words& lines)
{
    Received received;
    std::map<std::string, int64_t> last;
    for (const std::string& line : lines) {
        const Json event = Json::parse(line.substr(line.find('{')));
        const int64_t sequence = event["seq"];
        int64_t& lastOfOutbox = last[event["outbox"]];
        if (sequence <= lastOfOutbox) {
            ++received.repeats;
            continue;
        }
        received.gaps += sequence == lastOfOutbox + 1 ? 0 : 1;
        lastOfOutbox = sequence;
        received.milliseconds.push_back(std::stod(line) * 1e3 - event["sent"].get<double>() / 1e6);
    }
    std::sort(received.milliseconds.begin(), received.milliseconds.end());
    return received;
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
    Expect(broker, "report_event/+/+/+");
    const Running collector = Collect(broker, "report_event/+/+/+", "-F %U%p");
    BrokerOptions options;
    options.host = "127.0.0.1";
    options.port = broker.Port();
    const std::string before = StatusOf(broker.Id(), "VmRSS");
    std::vector<std::unique_ptr<Machine>> machines;
    for (size_t i = 0; i < plan.outboxes; ++i) {
        const std::string host = "machine-" + std::to_string(i);
        machines.push_back(std::make_unique<Machine>(directory / host, options, host));
    }
    Play(plan, machines, broker);
    Received received;
    const bool hasAll = Await([&] {
        received = Evaluate(collector->Output());
        return received.milliseconds.size() >= plan.Total();
    });
    const std::vector<double>& times = received.milliseconds;
    std::cout << times.size() << " of " << plan.Total() << " events received, " << received.gaps << " gaps, "
              << received.repeats << " repeats\n";
    if (hasAll) {
        std::cout << "from outbox to collector: p50 " << times[times.size() / 2] << " ms, p99 "
                  << times[times.size() * 99 / 100] << " ms, longest " << times.back() << " ms\n";
    }
    std::cout << "broker: memory " << before << " idle, " << StatusOf(broker.Id(), "VmRSS") << " with " << plan.outboxes
              << " connections; " << ProcessorSeconds(broker.Id()) << " s of processor time in " << plan.seconds
              << " s\n";
    for (const auto& machine : machines) {
        machine->sender.Stop();
    }
    return hasAll && received.gaps == 0 && times.size() == plan.Total() ? 0 : 1;
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

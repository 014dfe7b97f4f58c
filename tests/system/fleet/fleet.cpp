// Plays many machines: outboxes to which events are added at a steady rate, each with a sender of its own, and
// connections to the broker that are lost at random moments. Ends when the broker has everything. ../fleet_test.py
// starts it and judges what arrives.
// Usage: fleet DIRECTORY PORT OUTBOXES EVENTS_PER_SECOND SECONDS RECONNECTIONS
#include <mosquitto.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "tools/forward/Sender.h"

namespace {

using Clock = std::chrono::system_clock;  // which the collector stamps with
using namespace tools::forward;

struct Machine {
    Machine(const std::string& path, const BrokerOptions& broker, const std::string& host)
        : outbox(path, 1000000, false), sender(outbox, broker, "report_event", host)
    {
        sender.Start();
    }
    ~Machine()
    {
        sender.Stop();
    }
    Outbox outbox;
    Sender sender;
};

struct Plan {
    size_t outboxes;
    size_t rate;
    size_t seconds;
    size_t reconnections;
};

// The broker ends the connection of a client when another one comes with its identifier.
void Interrupt(const Machine& machine, int port)
{
    const std::string client = "report-event-" + machine.outbox.Identifier();
    if (std::system(("mosquitto_pub -p " + std::to_string(port) + " -t interrupted -n -i " + client).c_str()) != 0) {
        std::cerr << client << " could not be interrupted\n";
    }
}

// Adds the events of all machines, spread over time, with interruptions in between.
void Play(const Plan& plan, const std::vector<std::unique_ptr<Machine>>& machines, int port)
{
    std::minstd_rand random(std::random_device{}());
    const auto start = Clock::now();
    const std::chrono::nanoseconds duration = std::chrono::seconds(plan.seconds);
    const size_t total = plan.outboxes * plan.rate * plan.seconds;
    size_t interruptions = plan.reconnections;
    for (size_t next = 0; next < total; ++next) {
        std::this_thread::sleep_until(start + next * duration / total);
        const std::string sent = std::to_string(Clock::now().time_since_epoch().count());
        machines[next % machines.size()]->outbox.Append(
            "simulated/device",
            "{\"kind\":\"device\",\"sent\":" + sent + ",\"eventName\":\"" + std::string(250, 'n') + "\"}");
        if (random() % (total - next) < interruptions) {
            --interruptions;
            Interrupt(*machines[random() % machines.size()], port);
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 7) {
        std::cerr << "usage: fleet DIRECTORY PORT OUTBOXES EVENTS_PER_SECOND SECONDS RECONNECTIONS\n";
        return 2;
    }
    const auto number = [argv](int place) { return static_cast<size_t>(std::stoul(argv[place])); };
    const Plan plan{number(3), number(4), number(5), number(6)};
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    mosquitto_lib_init();
    BrokerOptions broker;
    broker.host = "127.0.0.1";
    broker.port = static_cast<int>(number(2));
    std::vector<std::unique_ptr<Machine>> machines;
    for (size_t i = 0; i < plan.outboxes; ++i) {
        const std::string host = "machine-" + std::to_string(i);
        machines.push_back(std::make_unique<Machine>(argv[1] + ("/" + host), broker, host));
    }
    Play(plan, machines, broker.port);
    const auto isEmpty = [](const auto& machine) { return machine->outbox.ReadAfter(0, 1).empty(); };
    while (!std::all_of(machines.begin(), machines.end(), isEmpty)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

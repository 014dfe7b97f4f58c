// A real broker for one test, and what collectors receive from it.
#ifndef REPORT_EVENT_TESTS_SYSTEM_BROKER_H
#define REPORT_EVENT_TESTS_SYSTEM_BROKER_H

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/system/Programs.h"
#include "tools/EventJson.h"

namespace system_test {

using tools::Json;

// A directory for outboxes, certificates and the broker's files, removed with its content.
class PrivateDirectory {
public:
    PrivateDirectory();
    ~PrivateDirectory();
    PrivateDirectory(const PrivateDirectory&) = delete;

    std::string operator/(const std::string& name) const
    {
        return path_ / name;
    }

private:
    std::filesystem::path path_;
};

// A port of the loopback that nobody listens on.
int FreePort();

// Listens on a loopback port and keeps what its clients have not received when it is stopped.
class Broker {
public:
    Broker(const PrivateDirectory& directory, const std::string& settings = "allow_anonymous true\n");

    void Start();
    void Stop(int signal = SIGTERM);
    pid_t Id() const
    {
        return process_->Id();
    }
    int Port() const
    {
        return port_;
    }
    std::string Address() const
    {
        return "mqtt://127.0.0.1:" + std::to_string(port_);
    }

private:
    const std::string configuration_;
    const int port_;
    Running process_;
};

// A collector of all that `topic` covers. What comes while neither runs it gets all the same, if Expect was called.
void Expect(const Broker& broker, const std::string& topic);
Running Collect(const Broker& broker, const std::string& topic, const std::string& arguments = "");

// The events in the order of their first receipt, which is that of the outbox, without a gap up to `last`.
struct Receipt {
    std::vector<Json> events;
    size_t repeats = 0;
};
Receipt Sort(const Words& lines);

}  // namespace system_test

#endif  // REPORT_EVENT_TESTS_SYSTEM_BROKER_H

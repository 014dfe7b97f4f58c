// report-event-forward: carries the events of this machine's publishers to an MQTT broker, through a file that keeps
// them until the broker has them.
#include <mosquitto.h>
#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>

#include "Help.h"
#include "tools/Platform.h"
#include "tools/Subscription.h"
#include "tools/ToolSupport.h"
#include "tools/forward/Failure.h"
#include "tools/forward/Outbox.h"
#include "tools/forward/Sender.h"

namespace tools::forward {
namespace {

constexpr uint64_t OUTBOX_MAX = 1000000000;

struct Options {
    SubscriptionOptions subscription;
    std::string outbox;
    uint64_t outboxLimit = 1000000;
    bool isPowerSafe = false;
    std::string prefix = "report_event";
    BrokerOptions broker;
    std::string passwordFile;
    bool verbose = false;
};

// mqtt[s]://HOST[:PORT], an IPv6 address in brackets.
void ReadBroker(const std::string& text, BrokerOptions& broker)
{
    static const std::regex form(R"(mqtt(s?)://(\[[0-9A-Fa-f:.]+\]|[^\[\]/:@?#\s]+)(:([0-9]{1,5}))?/?)");
    std::smatch parts;
    const bool isUnderstood = std::regex_match(text, parts, form);
    broker.isSecure = isUnderstood && parts[1].length() != 0;
    broker.port = broker.isSecure ? 8883 : 1883;
    if (isUnderstood && parts[4].matched) {
        broker.port = std::stoi(parts[4]);
    }
    if (!isUnderstood || broker.port < 1 || broker.port > UINT16_MAX) {
        throw CLI::ValidationError("--broker", "'" + text + "' is not of the form mqtt[s]://HOST[:PORT]");
    }
    broker.host = parts[2];
    if (broker.host.front() == '[') {
        broker.host = broker.host.substr(1, broker.host.size() - 2);
    }
}

std::string CheckPrefix(const std::string& prefix)
{
    const bool isTopic = mosquitto_pub_topic_check(prefix.c_str()) == MOSQ_ERR_SUCCESS &&
                         mosquitto_validate_utf8(prefix.c_str(), static_cast<int>(prefix.size())) == MOSQ_ERR_SUCCESS;
    return isTopic && !prefix.empty() && prefix.size() < 1024 ? "" : "'" + prefix + "' is not the start of a topic";
}

void AddOptions(CLI::App& app, Options& options)
{
    options.subscription.AddTo(app);
    app.add_option_function<std::string>("--broker",
                                         [&options](const std::string& text) { ReadBroker(text, options.broker); })
        ->required();
    app.add_option("--outbox", options.outbox)->required();
    AddNumber(app, "--outbox-limit", options.outboxLimit, 1, OUTBOX_MAX);
    app.add_option_function<std::string>("--sync",
                                         [&options](const std::string& how) { options.isPowerSafe = how == "full"; })
        ->check(CLI::IsMember({"normal", "full"}));
    app.add_option("--topic", options.prefix)->check(CheckPrefix);
    app.add_option("--cafile", options.broker.authorities)->check(CLI::ExistingFile);
    auto* const certificate = app.add_option("--cert", options.broker.certificate)->check(CLI::ExistingFile);
    auto* const key = app.add_option("--key", options.broker.key)->check(CLI::ExistingFile);
    certificate->needs(key);
    key->needs(certificate);
    auto* const user = app.add_option("--username", options.broker.user);
    app.add_option("--password-file", options.passwordFile)->check(CLI::ExistingFile)->needs(user);
    app.add_flag("--verbose", options.verbose);
    app.callback([&options] {
        options.subscription.Complete();
        if (!options.broker.isSecure && !(options.broker.authorities + options.broker.certificate).empty()) {
            throw CLI::ValidationError("--broker", "certificates need mqtts://");
        }
    });
}

// The first line.
std::string ReadPassword(const std::string& path)
{
    std::string password;
    std::ifstream file(path);
    if (!std::getline(file, password) || password.empty()) {
        throw std::runtime_error("no password can be read from " + path);
    }
    return password;
}

std::string HostName()
{
    std::array<char, HOST_NAME_MAX + 1> name{};
    gethostname(name.data(), name.size() - 1);
    return name.data();
}

// Puts what is delivered into the outbox. Any thread.
class Collector {
public:
    explicit Collector(Outbox& outbox) : outbox_(outbox)
    {
    }

    void Take(const Json& event)
    {
        try {
            const std::string source =
                TopicLevel(event["resource"].get_ref<const std::string&>()) + "/" + event["kind"].get<std::string>();
            outbox_.Append(source, ToLine(event));
        } catch (const std::exception& error) {
            failure_.Tell(error.what());
        }
    }
    const Failure& GivenUp() const
    {
        return failure_;
    }

private:
    Outbox& outbox_;
    Failure failure_;
};

// Until something ends it. Returns the exit code.
int Watch(Subscriptions& subscriptions, const StopSignals& signals, const Failure& taking, const Failure& sending)
{
    for (;;) {
        pollfd waited[] = {
            {signals.Descriptor(), POLLIN, 0}, {taking.Descriptor(), POLLIN, 0}, {sending.Descriptor(), POLLIN, 0}};
        poll(waited, 3, static_cast<int>(Subscriptions::LOOK_INTERVAL.count()));
        if (waited[0].revents != 0) {
            return EXIT_SUCCESS;
        }
        if (waited[1].revents != 0 || waited[2].revents != 0) {
            Complain(waited[1].revents != 0 ? taking.Cause() : sending.Cause());
            return EXIT_RUNTIME_FAILURE;
        }
        subscriptions.Look();
        if (subscriptions.AreOver()) {
            Complain("nothing can arrive any more");
            return EXIT_RUNTIME_FAILURE;
        }
    }
}

int Run(Options& options)
{
    if (!options.verbose) {
        platform::Quiet();
    }
    std::signal(SIGXFSZ, SIG_IGN);  // a file that is as large as it may be is an error like any other
    const StopSignals signals;
    if (!options.passwordFile.empty()) {
        options.broker.password = ReadPassword(options.passwordFile);
    }
    mosquitto_lib_init();
    Outbox outbox(options.outbox, options.outboxLimit, options.isPowerSafe);
    Collector collector(outbox);
    Sender sender(outbox, options.broker, options.prefix, HostName());
    Subscriptions subscriptions(options.subscription,
                                [&collector](const Json& event, SystemTime) { collector.Take(event); });
    int exitCode = EXIT_RUNTIME_FAILURE;
    if (subscriptions.Start()) {
        sender.Start();
        exitCode = Watch(subscriptions, signals, collector.GivenUp(), sender.GivenUp());
    }
    subscriptions.Stop();
    if (!sender.Stop()) {
        std::_Exit(exitCode);  // the outbox is as if the power had been cut, which it is made for
    }
    return exitCode;
}

}  // namespace
}  // namespace tools::forward

int main(int argc, char** argv)
{
    tools::forward::Options options;
    return tools::RunProgram(argc, argv,
                             {"report-event-forward", REPORT_EVENT_VERSION, tools::HELP,
                              [&options](CLI::App& app) { tools::forward::AddOptions(app, options); },
                              [&options] { return tools::forward::Run(options); }});
}

#include "tests/system/Broker.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <system_error>

namespace system_test {

namespace {

constexpr const char* COLLECTOR = "mosquitto_sub -h 127.0.0.1 -i collector -c -q 1";

std::string Configure(const PrivateDirectory& directory, int port, const std::string& settings)
{
    const std::string path = directory / "mosquitto.conf";
    std::ofstream(path) << "listener " << port << " 127.0.0.1\n"
                        << "user root\n"  // else it gives up the rights to this directory
                        << "persistence true\n"
                        << "persistence_location " << directory / ""
                        << "\n"
                        << "max_queued_messages 0\n"
                        << "log_dest stderr\n"
                        << settings;
    return path;
}

std::string CollectorOf(const Broker& broker, const std::string& topic)
{
    return COLLECTOR + (" -p " + std::to_string(broker.Port())) + " -t " + topic;
}

}  // namespace

PrivateDirectory::PrivateDirectory()
{
    std::string path = std::filesystem::temp_directory_path() / "report-event-XXXXXX";
    EXPECT_NE(mkdtemp(path.data()), nullptr);
    path_ = path;
}

PrivateDirectory::~PrivateDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

int FreePort()
{
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
    close(listener);
    return ntohs(address.sin_port);
}

Broker::Broker(const PrivateDirectory& directory, const std::string& settings)
    : configuration_(directory / "mosquitto.conf"), port_(FreePort())
{
    Configure(directory, port_, settings);
}

void Broker::Start()
{
    process_ = system_test::Start("/usr/sbin/mosquitto", "-c " + configuration_);
    EXPECT_TRUE(process_->WaitForError(" running")) << process_->Transcript();
}

void Broker::Stop(int signal)
{
    process_->Stop(signal);
}

void Expect(const Broker& broker, const std::string& topic)
{
    ExpectEnd(*Start("stdbuf", "-oL " + CollectorOf(broker, topic) + " -E"));
}

Running Collect(const Broker& broker, const std::string& topic, const std::string& arguments)
{
    return Start("stdbuf", "-oL " + CollectorOf(broker, topic) + " " + arguments);
}

Receipt Sort(const Words& lines)
{
    Receipt receipt;
    int64_t last = 0;
    for (const std::string& line : lines) {
        const Json event = Json::parse(line);
        const int64_t sequence = event["seq"];
        if (sequence <= last) {
            ++receipt.repeats;
            continue;
        }
        EXPECT_TRUE(last == 0 || sequence == last + 1) << "a gap behind " << last << ": " << line;
        last = sequence;
        receipt.events.push_back(event);
    }
    return receipt;
}

}  // namespace system_test

// report-event-forward and a real broker: what is taken arrives, whoever goes away on the way.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string_view>

#include "tests/system/Broker.h"
#include "tools/Output.h"
#include "tools/forward/Outbox.h"
#include "tools/forward/Sender.h"

namespace system_test {
namespace {

using tools::FileDescriptor;
using tools::forward::Database;
using tools::forward::Sender;

constexpr const char* EVENTS = "report_event/+/+/+";

class Forward : public ProgramsTest {
protected:
    Forward() : broker_(private_)
    {
    }
    // A forwarder to the broker of the test.
    Running Forwarder(const std::string& arguments)
    {
        return Start(FORWARDER, "--broker " + broker_.Address() + " --outbox " + outbox_ + " " + arguments);
    }
    // How many events the outbox holds, and how many it has held; nobody may have it open.
    int64_t Held() const
    {
        return Database(outbox_).Number("SELECT count(*) FROM outbox");
    }
    int64_t Removed() const
    {
        return Database(outbox_).Number("SELECT removed FROM state");
    }

    PrivateDirectory private_;
    const std::string outbox_ = private_ / "outbox";
    Broker broker_;
};

// Waits for the event with this number.
void AwaitNumber(Process& collector, int64_t number)
{
    EXPECT_TRUE(collector.WaitForOutput("\"seq\":" + std::to_string(number) + "}")) << collector.Transcript();
}

// Every event is in its place: that of its number, counted from 1.
void ExpectSerials(const Receipt& receipt, size_t count)
{
    ASSERT_EQ(receipt.events.size(), count);
    for (size_t i = 0; i < count; ++i) {
        EXPECT_EQ(receipt.events[i]["eventSerialNum"], i + 1);
    }
}

TEST_F(Forward, SendsTheObjectOfTheMonitorWithHostOutboxAndNumberAndItsStatus)
{
    broker_.Start();
    Expect(broker_, EVENTS);
    const auto topics = Start("stdbuf", "-oL mosquitto_sub -v -t # -p " + std::to_string(broker_.Port()));
    const auto publisher = Serve(SECURITY, "--kind security --name \"odd/+#name\" --arised-time 7");
    const auto forwarder = Forwarder("--security");
    char host[256] = {};
    gethostname(host, sizeof(host) - 1);
    const std::string below = "report_event/" + tools::forward::TopicLevel(host);
    EXPECT_TRUE(topics->WaitForOutput(below + "/status online")) << topics->Transcript();
    EXPECT_TRUE(topics->WaitForOutput(below + "/dp%3A%2Fres%2Fiam%2Fsec_event/security {\"kind\":\"security\","));

    const auto collector = Collect(broker_, EVENTS);
    const Json event = Json::parse(Events(*collector, 1)[0]);
    EXPECT_EQ(event["host"], host);
    EXPECT_EQ(event["seq"], 1);
    EXPECT_EQ(event["outbox"].get<std::string>().size(), 16U);
    EXPECT_EQ(event["resource"], SECURITY);
    EXPECT_EQ(event["eventArisedTime"], 7);

    // Whichever way it goes, the broker says so.
    ExpectStop(*forwarder, SIGTERM);
    EXPECT_TRUE(topics->WaitForOutput(below + "/status offline", 1)) << topics->Transcript();
    const auto again = Forwarder("--security");
    EXPECT_TRUE(topics->WaitForOutput(below + "/status online", 2)) << topics->Transcript();
    again->Stop(SIGKILL);
    EXPECT_TRUE(topics->WaitForOutput(below + "/status offline", 2)) << topics->Transcript();
}

TEST_F(Forward, LosesNothingWhenTheBrokerStopsInAStream)
{
    broker_.Start();
    Expect(broker_, EVENTS);
    const auto collector = Collect(broker_, EVENTS);
    const auto forwarder = Forwarder("--follow");
    const auto publisher = Serve(PM, "--kind device --count 2000 --interval 1");
    AwaitNumber(*collector, 300);
    broker_.Stop();
    EXPECT_TRUE(forwarder->WaitForError("; trying again")) << forwarder->Transcript();
    broker_.Start();
    AwaitNumber(*collector, 2000);
    ExpectStop(*forwarder, SIGTERM);
    const Receipt receipt = Sort(collector->Output());
    ExpectSerials(receipt, 2000);
    EXPECT_LE(receipt.repeats, Sender::WINDOW);
    EXPECT_EQ(Held(), 0);
    EXPECT_TRUE(forwarder->WaitForError("connected to " + broker_.Address(), 2)) << forwarder->Transcript();
}

TEST_F(Forward, LosesNothingThatWasTakenWhenItIsKilledTwentyTimes)
{
    constexpr int KILLS = 20;
    broker_.Start();
    Expect(broker_, EVENTS);
    const auto collector = Collect(broker_, EVENTS);
    std::minstd_rand random(testing::UnitTest::GetInstance()->random_seed());
    {
        const auto publisher = Serve(PM, "--kind device --quiet --interval 1 --count 1000000");
        for (int kill = 0; kill < KILLS; ++kill) {
            const size_t before = collector->Output().size();
            const auto forwarder = Forwarder("");
            EXPECT_TRUE(collector->WaitForOutput("", before + 1 + random() % 100)) << forwarder->Transcript();
            forwarder->Stop(SIGKILL);
        }
    }
    // The rest, which nothing joins any more.
    EXPECT_TRUE(Await([&] {
        const auto forwarder = Forwarder("--follow");
        EXPECT_TRUE(forwarder->WaitForError("connected to")) << forwarder->Transcript();
        ExpectStop(*forwarder, SIGTERM);
        return Held() == 0;
    }));
    const int64_t taken = Removed();
    AwaitNumber(*collector, taken);
    const Receipt receipt = Sort(collector->Output());
    ASSERT_EQ(receipt.events.size(), static_cast<size_t>(taken));
    EXPECT_LE(receipt.repeats, KILLS * Sender::WINDOW);
    for (size_t i = 1; i < receipt.events.size(); ++i) {
        EXPECT_LT(receipt.events[i - 1]["eventSerialNum"], receipt.events[i]["eventSerialNum"]);
    }
}

TEST_F(Forward, TakesABurstWhileTheBrokerIsAway)
{
    constexpr size_t COUNT = 50000;
    const auto forwarder = Forwarder("--fault x:/res/burst --follow");
    const auto publisher = Start(PUBLISHER, "--resource x:/res/burst --wait --quiet --kind device --count 50000");
    EXPECT_TRUE(forwarder->WaitForError("; trying again")) << forwarder->Transcript();
    ExpectEnd(*publisher);
    broker_.Start();
    const auto collector = Collect(broker_, EVENTS, "-C 50000");
    ExpectEnd(*collector);
    const Receipt receipt = Sort(collector->Output());
    ExpectSerials(receipt, COUNT);
    EXPECT_EQ(receipt.repeats, 0U);
}

TEST_F(Forward, SaysWhatAFullOutboxHasDropped)
{
    const auto publisher = Serve(PM, "--kind device --count 150");
    const auto forwarder = Forwarder("--outbox-limit 100");
    EXPECT_TRUE(publisher->WaitForOutput("150/150 ")) << publisher->Transcript();
    publisher->Stop(SIGKILL);
    ExpectEnd(*forwarder, 1);  // nothing can arrive any more, and the last event was that
    EXPECT_TRUE(forwarder->WaitForError("is full: the oldest events are dropped")) << forwarder->Transcript();
    EXPECT_EQ(Held(), 100);

    broker_.Start();
    Expect(broker_, EVENTS);
    const auto collector = Collect(broker_, EVENTS);
    const auto later = Forwarder("--outbox-limit 100 --follow");
    AwaitNumber(*collector, 152);
    EXPECT_TRUE(later->WaitForError("51 events were dropped, numbers 1 to 51")) << later->Transcript();
    const Receipt receipt = Sort(collector->Output());
    ASSERT_EQ(receipt.events.size(), 101U);
    EXPECT_EQ(receipt.events[0]["eventSerialNum"], 52);
    EXPECT_EQ(receipt.events[99]["kind"], "pm-lost");
    const Json& notice = receipt.events[100];
    EXPECT_EQ(notice["kind"], "dropped");
    EXPECT_EQ(notice["count"], 51);
    EXPECT_EQ(notice["first"], 1);
    EXPECT_EQ(notice["last"], 51);
}

TEST_F(Forward, EndsInTimeThoughTheBrokerIsFrozenAndKeepsWhatItHasNotAcknowledged)
{
    constexpr int COUNT = 500;
    broker_.Start();
    const auto forwarder = Forwarder("--follow");
    EXPECT_TRUE(forwarder->WaitForError("connected to")) << forwarder->Transcript();
    kill(broker_.Id(), SIGSTOP);
    const auto publisher = Start(PUBLISHER, "--resource dp:/res/pm/fm --wait --quiet --kind device --count 500");
    ExpectEnd(*publisher);
    EXPECT_TRUE(forwarder->WaitForError("lost dp:/res/pm/fm")) << forwarder->Transcript();
    ExpectStop(*forwarder, SIGTERM);
    EXPECT_EQ(Held(), COUNT + 1);  // and the loss of the process manager
}

// Which version of the protocol the next client asks for. It is told that this one is not known.
int RefuseVersion(int listener)
{
    const FileDescriptor client(accept(listener, nullptr, nullptr), "accept");
    std::string hello(1024, '\0');
    EXPECT_GT(recv(client.Get(), hello.data(), hello.size(), 0), 0);
    constexpr std::string_view UNKNOWN_VERSION("\x20\x02\x00\x01", 4);
    EXPECT_GT(send(client.Get(), UNKNOWN_VERSION.data(), UNKNOWN_VERSION.size(), MSG_NOSIGNAL), 0);
    constexpr std::string_view NAME = "MQTT";
    return hello.at(hello.find(NAME) + NAME.size());
}

TEST_F(Forward, TriesTheOlderVersionOfTheProtocolAndThenPausesForLongerAndLonger)
{
    const FileDescriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    const timeval patience{PATIENCE.count(), 0};
    EXPECT_EQ(setsockopt(listener.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)), 0);
    sockaddr_in address{AF_INET, htons(static_cast<uint16_t>(broker_.Port())), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(listener.Get(), 1), 0);

    const auto forwarder = Forwarder("--follow");
    EXPECT_EQ(RefuseVersion(listener.Get()), 5);
    EXPECT_EQ(RefuseVersion(listener.Get()), 4);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(RefuseVersion(listener.Get()), 4);
    EXPECT_EQ(RefuseVersion(listener.Get()), 4);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
    EXPECT_TRUE(forwarder->WaitForError("unacceptable protocol version")) << forwarder->Transcript();
}

// A file that may not grow beyond two megabytes is a full disk.
TEST_F(Forward, DropsTheOldestWhenTheDiskIsFullAndGoesOn)
{
    constexpr int64_t COUNT = 10000;
    const auto forwarder =
        Shell("ulimit -f 4096; exec " +
              (FORWARDER + (" --fault x:/res/much --follow --broker " + broker_.Address() + " --outbox " + outbox_)));
    const std::string served = "--resource x:/res/much --wait --quiet --kind device";
    ExpectEnd(*Start(PUBLISHER, served + " --count 3000"));
    EXPECT_TRUE(forwarder->WaitForError("lost x:/res/much")) << forwarder->Transcript();
    EXPECT_EQ(forwarder->Transcript().find("is full"), std::string::npos) << "though the disk has room";
    ExpectEnd(*Start(PUBLISHER, served + " --count 7000"));
    EXPECT_TRUE(forwarder->WaitForError("is full: the oldest events are dropped")) << forwarder->Transcript();
    broker_.Start();
    Expect(broker_, EVENTS);
    const auto collector = Collect(broker_, EVENTS);
    EXPECT_TRUE(collector->WaitForOutput("\"kind\":\"dropped\"")) << forwarder->Transcript();
    const Receipt receipt = Sort(collector->Output());
    const auto isDropNotice = [](const Json& event) { return event["kind"] == "dropped"; };
    const auto notice = std::find_if(receipt.events.begin(), receipt.events.end(), isDropNotice);
    ASSERT_NE(notice, receipt.events.end());
    EXPECT_EQ((*notice)["first"], 1);
    EXPECT_EQ((*notice)["count"], (*notice)["last"]);
    EXPECT_EQ(receipt.events[0]["seq"], (*notice)["last"].get<int64_t>() + 1);
    EXPECT_EQ((*notice)["seq"], COUNT + 1);
    ExpectStop(*forwarder, SIGTERM);
}

// Killed right behind it: a process of its own, so that nothing is left to write.
TEST_F(Forward, StoresBeforeAppendReturnsAndGivesNoNumberTwice)
{
    for (const bool powerSafe : {false, true}) {
        EXPECT_EXIT(
            {
                tools::forward::Outbox outbox(outbox_, 10, powerSafe);
                outbox.Append("resource/device", "{}");
                raise(SIGKILL);
            },
            testing::KilledBySignal(SIGKILL), "");
    }
    std::string identifier;
    for (const int64_t expected : {2, 3, 4}) {  // the first time they are both there, then none
        tools::forward::Outbox outbox(outbox_, 10, false);
        EXPECT_EQ(identifier.empty() || identifier == outbox.Identifier(), true);
        identifier = outbox.Identifier();
        if (expected > 2) {
            outbox.Append("resource/device", "{}");
        }
        const auto events = outbox.ReadAfter(0, 10);
        ASSERT_EQ(events.size(), expected == 2 ? 2U : 1U);
        EXPECT_EQ(events.back().sequence, expected);
        outbox.Remove(expected);
    }
}

TEST_F(Forward, OpensItsOutboxAgainWhateverItsSize)
{
    for (int pages = 0; pages < 100; ++pages) {
        const std::string path = private_ / std::to_string(pages);
        tools::forward::Outbox filled(path, 100, false);
        for (int page = 0; page < pages; ++page) {
            filled.Append("resource/device", std::string(4000, 'x'));
        }
        std::filesystem::copy(path, path + "-copy");
        std::filesystem::copy(path + "-wal", path + "-copy-wal");
        EXPECT_NO_THROW(tools::forward::Outbox(path + "-copy", 100, false)) << pages;
    }
}

TEST_F(Forward, LeavesTheClientOfAnObservedResourceAllOfItsEvents)
{
    broker_.Start();
    Expect(broker_, EVENTS);
    const auto collector = Collect(broker_, EVENTS);
    const auto publisher = Serve(PM, "--kind device --interval 1 --count 1000");
    const auto forwarder = Forwarder("--observe");
    EXPECT_TRUE(forwarder->WaitForError("observing")) << forwarder->Transcript();
    const auto monitor = StartMonitor("");
    ExpectNumbered(*monitor, 0, 1, 1000);
    AwaitNumber(*collector, 1000);
    ExpectSerials(Sort(collector->Output()), 1000);
}

}  // namespace
}  // namespace system_test

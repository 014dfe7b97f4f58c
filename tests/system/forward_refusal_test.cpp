// What report-event-forward says, and whether it goes on, when its outbox or the broker is not as it should be.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <fstream>

#include "tests/system/Broker.h"
#include "tools/forward/Outbox.h"

namespace system_test {
namespace {

using tools::forward::Database;
using tools::forward::Outbox;

using ForwardRefusal = ProgramsTest;

void ExpectOneLine(Process& process, const std::string& text)
{
    ExpectEnd(process, 1);
    EXPECT_TRUE(process.WaitForError("report-event-forward: ")) << process.Transcript();
    EXPECT_TRUE(process.WaitForError(text)) << text << "\n" << process.Transcript();
}

// ---------------------------------------------------------------------------------------------------------------------
// The outbox

void WriteGarbage(const std::string& path, std::streamoff from, size_t size)
{
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::app);
    file.close();
    file.open(path, std::ios::in | std::ios::out);
    file.seekp(from);
    file << std::string(size, 'g');
}

// Fills it so that its events take many pages.
void FillOutbox(const std::string& path)
{
    Outbox outbox(path, 1000, false);
    for (int i = 0; i < 100; ++i) {
        outbox.Append("resource/device", "{\"name\":\"" + std::string(1000, 'n') + "\"}");
    }
}

TEST_F(ForwardRefusal, NamesWhatIsWrongWithTheOutboxAndLeavesItAlone)
{
    const PrivateDirectory directory;
    WriteGarbage(directory / "text", 0, 5000);
    Database(directory / "others").Run("CREATE TABLE songs (name TEXT)");
    FillOutbox(directory / "newer");
    Database(directory / "newer").Run("PRAGMA user_version = 2");
    FillOutbox(directory / "locked");
    std::filesystem::permissions(directory / "locked", std::filesystem::perms::owner_read);
    FillOutbox(directory / "damaged");
    WriteGarbage(directory / "damaged", 4096, 8192);
    const Outbox inUse(directory / "inUse", 1000, false);

    // The owner of a file may write it whatever its permissions if it is root, unless it gives that up.
    const std::string withoutPrivilege = geteuid() == 0 ? "--bounding-set=-dac_override,-dac_read_search " : "";
    const std::pair<const char*, const char*> cases[] = {
        {"text", ": file is not a database"},
        {"others", ": this is a database of another program"},
        {"newer", ": it has format 2, and this program knows format 1"},
        {"locked", ": it cannot be written"},
        {"damaged", ": database disk image is malformed"},
        {"inUse", ": another process uses it"},
        {"nowhere/outbox", ": unable to open database file (No such file or directory)"},
    };
    for (const auto& [name, text] : cases) {
        const auto forwarder = Start("setpriv", withoutPrivilege + FORWARDER + " --follow --broker mqtt://127.0.0.1:1" +
                                                    " --outbox " + (directory / name));
        ExpectOneLine(*forwarder, "outbox " + (directory / name) + text);
    }
    EXPECT_EQ(Database(directory / "others").Number("PRAGMA application_id"), 0);
    EXPECT_EQ(Database(directory / "newer").Number("SELECT count(*) FROM outbox"), 100);
}

// ---------------------------------------------------------------------------------------------------------------------
// The broker

// Authorities, and certificates of a broker and of a client, in files of their names.
void MakeCertificates(const PrivateDirectory& directory)
{
    const auto script = Shell("cd " + (directory / "") + R"( && exec 2>&1 && set -e
        authority() { openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 30 \
            -subj "/CN=$1" -keyout "$1.key" -out "$1.pem"; }
        signed() { openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=$1" \
                -keyout "$1.key" -out "$1.csr" -addext "subjectAltName=$2"
            openssl x509 -req -in "$1.csr" -CA authority.pem -CAkey authority.key -CAcreateserial \
                -copy_extensions copy -days "$3" -out "$1.pem"; }
        authority authority; authority stranger
        signed broker IP:127.0.0.1 30; signed other DNS:elsewhere 30; signed old IP:127.0.0.1 -1; signed client DNS:c 30
    )");
    ExpectEnd(*script);
}

std::string TlsListener(const PrivateDirectory& directory, int port, const std::string& name)
{
    return "listener " + std::to_string(port) + " 127.0.0.1\ncafile " + (directory / "authority.pem") + "\ncertfile " +
           (directory / (name + ".pem")) + "\nkeyfile " + (directory / (name + ".key")) + "\n";
}

TEST_F(ForwardRefusal, TrustsACertificateOnlyForItsHostItsTimeAndItsAuthority)
{
    const PrivateDirectory directory;
    MakeCertificates(directory);
    const int right = FreePort();
    const int wrongName = FreePort();
    const int expired = FreePort();
    Broker broker(directory, "allow_anonymous true\n" + TlsListener(directory, right, "broker") +
                                 "require_certificate true\n" + TlsListener(directory, wrongName, "other") +
                                 TlsListener(directory, expired, "old"));
    broker.Start();
    const auto start = [&](int port, const std::string& authority, const std::string& arguments) {
        return Start(FORWARDER, "--follow --broker mqtts://127.0.0.1:" + std::to_string(port) + " --outbox " +
                                    (directory / "outbox") + " --cafile " + (directory / authority) + " " + arguments);
    };

    const std::string client = "--cert " + (directory / "client.pem") + " --key " + (directory / "client.key");
    const auto trusting = start(right, "authority.pem", client);
    EXPECT_TRUE(trusting->WaitForError("connected to mqtts://127.0.0.1:")) << trusting->Transcript();
    ExpectStop(*trusting, SIGTERM);
    ExpectOneLine(*start(wrongName, "authority.pem", ""), "certificate is refused: IP address mismatch");
    ExpectOneLine(*start(wrongName, "stranger.pem", ""), "certificate is refused: self-signed certificate in");
    // It may be renewed, or the clock may be wrong.
    const auto waiting = start(expired, "authority.pem", "");
    EXPECT_TRUE(waiting->WaitForError("certificate is refused: certificate has expired; trying again"))
        << waiting->Transcript();
    ExpectStop(*waiting, SIGTERM);
}

TEST_F(ForwardRefusal, EndsWhenTheBrokerWantsOtherCredentialsOrTopicsFromTheStart)
{
    const PrivateDirectory directory;
    ExpectEnd(*Start("mosquitto_passwd", "-c -b " + (directory / "passwords") + " device secret"));
    std::ofstream(directory / "acl") << "user device\ntopic write allowed/#\ntopic write status/+/status\n";
    std::ofstream(directory / "right") << "secret\n";
    std::ofstream(directory / "wrong") << "guess\n";
    Broker broker(directory, "allow_anonymous false\npassword_file " + (directory / "passwords") + "\nacl_file " +
                                 (directory / "acl") + "\n");
    broker.Start();
    const auto publisher = Serve(PM, "--kind device --quiet --interval 10 --count 1000000");
    const auto start = [&](const std::string& prefix, const std::string& passwordFile) {
        return Start(FORWARDER, "--broker " + broker.Address() + " --username device --password-file " +
                                    (directory / passwordFile) + " --topic " + prefix + " --outbox " +
                                    (directory / "outbox"));
    };

    ExpectOneLine(*start("allowed", "wrong"), "the broker refuses the connection: Not authorized");
    ExpectOneLine(*start("forbidden", "right"), "the broker refuses the topic forbidden/");
    // Here it may say that it is there, and not more; the events stay.
    ExpectOneLine(*start("status", "right"), "/dp%3A%2Fres%2Fpm%2Ffm/device: Not authorized");
    EXPECT_EQ(Database(directory / "outbox").Number("SELECT min(seq) FROM outbox"), 1);

    // What has worked is tried again.
    const auto forwarder = start("allowed", "right");
    EXPECT_TRUE(forwarder->WaitForError("connected to")) << forwarder->Transcript();
    ExpectEnd(*Start("mosquitto_passwd", "-b " + (directory / "passwords") + " device changed"));
    broker.Stop();
    broker.Start();
    EXPECT_TRUE(forwarder->WaitForError("Not authorized; trying again")) << forwarder->Transcript();
    ExpectStop(*forwarder, SIGTERM);
}

}  // namespace
}  // namespace system_test

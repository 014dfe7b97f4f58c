// One connection to an MQTT broker, from its start to its end; a new one is made after it. Used by one thread.
#ifndef REPORT_EVENT_TOOLS_FORWARD_CONNECTION_H
#define REPORT_EVENT_TOOLS_FORWARD_CONNECTION_H

#include <mosquitto.h>
#include <openssl/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tools::forward {

// How the broker is reached, and what it is told.
struct BrokerOptions {
    bool isSecure = false;
    std::string host;
    int port = 0;
    std::string authorities;  // files in PEM form; empty for those of the system
    std::string certificate;
    std::string key;
    std::string user;
    std::string password;

    std::string client;       // identifier; the broker knows one connection by it
    std::string statusTopic;  // says "online" or "offline"
};

// The end of a connection, or that it did not come about, with its cause.
class ConnectionError : public std::runtime_error {
public:
    enum class Hope { TIME_CAN_HELP, ONLY_OTHER_SETTINGS };

    ConnectionError(const std::string& cause, Hope hope) : std::runtime_error(cause), hope_(hope)
    {
    }
    bool IsHopeless() const
    {
        return hope_ == Hope::ONLY_OTHER_SETTINGS;
    }

private:
    Hope hope_;
};

class Connection {
public:
    // Versions of the protocol, as the MQTT library numbers them. Only the newer one tells that a topic is refused.
    static constexpr int NEWER = MQTT_PROTOCOL_V5;
    static constexpr int OLDER = MQTT_PROTOCOL_V311;

    // Connects; the broker's answer comes during a Wait, and then it is told that the client is online. Throws
    // ConnectionError, as every call does.
    Connection(const BrokerOptions& options, int version);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Returns after traffic or the time, or when a descriptor is readable (-1 for none). Whether `wake` is.
    bool Wait(int wake, int otherWake, std::chrono::milliseconds timeout);
    // Whether the broker has accepted it.
    bool IsOpen() const
    {
        return isOpen_;
    }
    // Whether the broker has refused it for its version of the protocol.
    bool IsVersionRefused() const
    {
        return isVersionRefused_;
    }

    // While on, what is published waits in this machine, so that it leaves in few packets once this is off again.
    void HoldBack(bool on);
    // Hands a message over, to be delivered at least once. Returns its number in this connection.
    int Publish(const std::string& topic, const std::string& payload);
    struct Answer {
        int number;  // of a message
        bool isRefusal;
        int reason;
    };
    // What the broker has answered to messages since the last call.
    std::vector<Answer> TakeAnswers();
    // The error for the answer to a message of this topic.
    ConnectionError RefusalOf(const std::string& topic, const Answer& answer) const;

    // Says "offline" and takes leave of the broker.
    void Close();

private:
    struct Destroy {
        void operator()(mosquitto* client) const
        {
            mosquitto_destroy(client);
        }
    };

    static int Verify(X509_STORE_CTX* store, void* connection);
    static void OnConnect(mosquitto* client, void* connection, int reason, int flags, const mosquitto_property*);
    static void OnPublished(mosquitto* client, void* connection, int number, int reason, const mosquitto_property*);
    static void OnDisconnect(mosquitto* client, void* connection, int reason, const mosquitto_property*);

    void UseTls();
    int Send(const std::string& topic, std::string_view payload, bool retain);
    void Check(int result);
    [[noreturn]] void Fail(int result) const;

    const BrokerOptions& options_;
    const int version_;
    int certificateFault_ = 0;  // of OpenSSL; 0 for none
    bool isOpen_ = false;
    bool isVersionRefused_ = false;
    std::optional<ConnectionError> refusal_;  // what the broker has said
    std::vector<Answer> answers_;
    int statusMessage_ = 0;                       // its number, once it is sent
    std::unique_ptr<mosquitto, Destroy> client_;  // the last one: its end may call back
};

}  // namespace tools::forward

#endif  // REPORT_EVENT_TOOLS_FORWARD_CONNECTION_H

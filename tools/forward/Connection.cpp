#include "tools/forward/Connection.h"

#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace tools::forward {

namespace {

using Hope = ConnectionError::Hope;

constexpr int AT_LEAST_ONCE = 1;
constexpr int KEEP_ALIVE_SECONDS = 30;
constexpr int FIRST_FAILURE = 0x80;  // among the reasons of the newer version
constexpr std::string_view ONLINE = "online";
constexpr std::string_view OFFLINE = "offline";

// Of either version of the protocol: time does not make other credentials of these.
bool IsHopeless(int version, int reason)
{
    if (version == Connection::OLDER) {
        return reason == CONNACK_REFUSED_IDENTIFIER_REJECTED || reason == CONNACK_REFUSED_BAD_USERNAME_PASSWORD ||
               reason == CONNACK_REFUSED_NOT_AUTHORIZED;
    }
    return reason == MQTT_RC_CLIENTID_NOT_VALID || reason == MQTT_RC_BAD_USERNAME_OR_PASSWORD ||
           reason == MQTT_RC_NOT_AUTHORIZED || reason == MQTT_RC_BANNED || reason == MQTT_RC_TOPIC_NAME_INVALID;
}

ConnectionError Refusal(const std::string& what, int version, int reason)
{
    const char* const text =
        version == Connection::OLDER ? mosquitto_connack_string(reason) : mosquitto_reason_string(reason);
    return {what + ": " + text, IsHopeless(version, reason) ? Hope::ONLY_OTHER_SETTINGS : Hope::TIME_CAN_HELP};
}

// Some time a certificate is not valid yet, or not valid any more: clocks get set, and certificates renewed.
bool CanTimeHelp(int certificateFault)
{
    return certificateFault == X509_V_ERR_CERT_HAS_EXPIRED || certificateFault == X509_V_ERR_CERT_NOT_YET_VALID;
}

}  // namespace

Connection::Connection(const BrokerOptions& options, int version)
    : options_(options), version_(version), client_(mosquitto_new(options.client.c_str(), true, this))
{
    mosquitto* const client = client_.get();
    if (client == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mosquitto_new");
    }
    mosquitto_connect_v5_callback_set(client, OnConnect);
    mosquitto_publish_v5_callback_set(client, OnPublished);
    mosquitto_disconnect_v5_callback_set(client, OnDisconnect);
    Check(mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, version));
    Check(mosquitto_max_inflight_messages_set(client, 0));  // whoever publishes has a bound of his own
    Check(mosquitto_will_set(client, options.statusTopic.c_str(), OFFLINE.size(), OFFLINE.data(), AT_LEAST_ONCE, true));
    if (!options.user.empty()) {
        Check(mosquitto_username_pw_set(client, options.user.c_str(), options.password.c_str()));
    }
    if (options.isSecure) {
        UseTls();
    }
    Check(mosquitto_connect_bind_v5(client, options.host.c_str(), options.port, KEEP_ALIVE_SECONDS, nullptr, nullptr));
}

// Not through the MQTT library's own settings, which do not say what is wrong with a certificate.
void Connection::UseTls()
{
    const std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> owned(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
    SSL_CTX* const context = owned.get();
    const auto require = [](int isDone, const std::string& what) {
        if (isDone != 1) {
            throw ConnectionError("cannot use " + what, Hope::ONLY_OTHER_SETTINGS);
        }
    };
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(context, Verify, this);
    X509_VERIFY_PARAM* const expected = SSL_CTX_get0_param(context);
    if (X509_VERIFY_PARAM_set1_ip_asc(expected, options_.host.c_str()) != 1) {
        require(X509_VERIFY_PARAM_set1_host(expected, options_.host.c_str(), 0), options_.host);
    }
    if (options_.authorities.empty()) {
        require(SSL_CTX_set_default_verify_paths(context), "the system's certificates");
    } else {
        require(SSL_CTX_load_verify_file(context, options_.authorities.c_str()), options_.authorities);
    }
    if (!options_.certificate.empty()) {
        // A key with a passphrase is one that cannot be used: nobody is there to type it.
        SSL_CTX_set_default_passwd_cb(context, [](char*, int, int, void*) { return 0; });
        require(SSL_CTX_use_certificate_chain_file(context, options_.certificate.c_str()), options_.certificate);
        require(SSL_CTX_use_PrivateKey_file(context, options_.key.c_str(), SSL_FILETYPE_PEM), options_.key);
    }
    Check(mosquitto_void_option(client_.get(), MOSQ_OPT_SSL_CTX, context));
    Check(mosquitto_int_option(client_.get(), MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0));
}

int Connection::Verify(X509_STORE_CTX* store, void* connection)
{
    const int isValid = X509_verify_cert(store);
    static_cast<Connection*>(connection)->certificateFault_ =
        isValid == 1 ? X509_V_OK : X509_STORE_CTX_get_error(store);
    return isValid;
}

void Connection::OnConnect(mosquitto*, void* connection, int reason, int, const mosquitto_property*)
{
    auto* const self = static_cast<Connection*>(connection);
    self->isOpen_ = reason == 0;
    self->isVersionRefused_ = reason == MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION;
    if (reason != 0) {
        self->refusal_ = Refusal("the broker refuses the connection", self->version_, reason);
    }
}

void Connection::OnPublished(mosquitto*, void* connection, int number, int reason, const mosquitto_property*)
{
    auto* const self = static_cast<Connection*>(connection);
    self->answers_.push_back({number, reason >= FIRST_FAILURE, reason});
}

void Connection::OnDisconnect(mosquitto*, void* connection, int reason, const mosquitto_property*)
{
    auto* const self = static_cast<Connection*>(connection);
    if (reason >= FIRST_FAILURE && !self->refusal_) {
        self->refusal_ = Refusal("the broker ends the connection", NEWER, reason);
    }
}

bool Connection::Wait(int wake, int otherWake, std::chrono::milliseconds timeout)
{
    mosquitto* const client = client_.get();
    const int socketEvents = mosquitto_want_write(client) ? POLLIN | POLLOUT : POLLIN;
    pollfd waited[] = {
        {mosquitto_socket(client), static_cast<short>(socketEvents), 0}, {wake, POLLIN, 0}, {otherWake, POLLIN, 0}};
    poll(waited, 3, static_cast<int>(timeout.count()));
    // Also without an event: TLS may have kept what it has already read.
    Check(mosquitto_loop_read(client, 1));
    if (mosquitto_want_write(client)) {
        Check(mosquitto_loop_write(client, 1));
    }
    Check(mosquitto_loop_misc(client));
    if (refusal_) {
        throw *refusal_;
    }
    if (isOpen_ && statusMessage_ == 0) {
        statusMessage_ = Send(options_.statusTopic, ONLINE, true);
    }
    return waited[1].revents != 0;
}

void Connection::HoldBack(bool on)
{
    const int value = on ? 1 : 0;
    (void)setsockopt(mosquitto_socket(client_.get()), IPPROTO_TCP, TCP_CORK, &value, sizeof(value));
}

int Connection::Publish(const std::string& topic, const std::string& payload)
{
    return Send(topic, payload, false);
}

int Connection::Send(const std::string& topic, std::string_view payload, bool retain)
{
    int number = 0;
    Check(mosquitto_publish_v5(client_.get(), &number, topic.c_str(), static_cast<int>(payload.size()), payload.data(),
                               AT_LEAST_ONCE, retain, nullptr));
    return number;
}

std::vector<Connection::Answer> Connection::TakeAnswers()
{
    for (const Answer& answer : answers_) {
        if (answer.number == statusMessage_ && answer.isRefusal) {
            throw RefusalOf(options_.statusTopic, answer);
        }
    }
    return std::exchange(answers_, {});
}

ConnectionError Connection::RefusalOf(const std::string& topic, const Answer& answer) const
{
    return Refusal("the broker refuses the topic " + topic, version_, answer.reason);
}

void Connection::Close()
{
    Send(options_.statusTopic, OFFLINE, true);
    Check(mosquitto_disconnect(client_.get()));
}

void Connection::Check(int result)
{
    if (result != MOSQ_ERR_SUCCESS) {
        Fail(result);
    }
}

void Connection::Fail(int result) const
{
    const int cause = errno;
    if (refusal_) {
        throw *refusal_;
    }
    if (certificateFault_ != X509_V_OK) {
        throw ConnectionError(
            std::string("the broker's certificate is refused: ") + X509_verify_cert_error_string(certificateFault_),
            CanTimeHelp(certificateFault_) ? Hope::TIME_CAN_HELP : Hope::ONLY_OTHER_SETTINGS);
    }
    const std::string text =
        result == MOSQ_ERR_ERRNO ? std::generic_category().message(cause) : mosquitto_strerror(result);
    const bool isHopeless = result == MOSQ_ERR_INVAL || result == MOSQ_ERR_OVERSIZE_PACKET;
    throw ConnectionError(text, isHopeless ? Hope::ONLY_OTHER_SETTINGS : Hope::TIME_CAN_HELP);
}

}  // namespace tools::forward

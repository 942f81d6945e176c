#include "Mqtt.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <mutex>

#include "common/ByteSet.h"
#include "common/Descriptor.h"
#include "ipc/IPCException.h"

namespace ipc {

namespace {

// Brokers disconnect a client that publishes on a deeper topic. As the message is kept until it is acknowledged, that
// would repeat for ever.
constexpr std::size_t maxSlashes = 200;
constexpr std::size_t maxCorrelationData = 65535;

bool hasNul(std::string_view text) { return text.find('\0') != std::string_view::npos; }

/// UTF-8 as MQTT defines it: without NUL.
bool isUtf8(std::string_view text) {
    return mosquitto_validate_utf8(text.data(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
}

constexpr common::ByteSet isPlain([](unsigned char byte) {
    return byte >= ' ' && byte <= '~' && byte != '+' && byte != '#';
});

/// One look at each letter of a short topic in ASCII, which almost all are, instead of three.
bool isPlainTopic(std::string_view topic) {
    return !topic.empty() && topic.size() <= maxSlashes && std::all_of(topic.begin(), topic.end(), isPlain);
}

bool isTopic(std::string_view topic) {
    if (isPlainTopic(topic)) return true;
    return !topic.empty() && static_cast<std::size_t>(std::count(topic.begin(), topic.end(), '/')) <= maxSlashes &&
           mosquitto_pub_topic_check2(topic.data(), topic.size()) == MOSQ_ERR_SUCCESS && isUtf8(topic);
}

}  // namespace

void requirePublishable(const Message& message) {
    if (!isTopic(message.topic) || hasNul(message.responseTopic) ||
        message.correlationData.size() > maxCorrelationData || message.payload.size() > maxPacket) {
        throw IPCException("The topic is invalid or the message is too large: \"" + std::string(message.topic) + "\"");
    }
}

void requireFilter(const std::string& filter) {
    const bool isFilter = !filter.empty() &&
                          mosquitto_sub_topic_check2(filter.data(), filter.size()) == MOSQ_ERR_SUCCESS &&
                          isUtf8(filter);
    if (!isFilter) throw IPCException("Invalid topic filter: \"" + filter + "\"");
}

std::string Incoming::responseTopic() const {
    char* text = nullptr;
    if (mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &text, false) == nullptr) return {};
    const std::unique_ptr<char, decltype(&std::free)> owner(text, &std::free);
    return text != nullptr ? std::string(text) : std::string();
}

std::string Incoming::correlationData() const {
    void* data = nullptr;
    std::uint16_t size = 0;
    if (mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &data, &size, false) == nullptr) {
        return {};
    }
    const std::unique_ptr<void, decltype(&std::free)> owner(data, &std::free);
    return data != nullptr ? std::string(static_cast<const char*>(data), size) : std::string();
}

std::vector<std::uint32_t> Incoming::subscriptions() const {
    std::vector<std::uint32_t> named;
    std::uint32_t identifier = 0;
    const mosquitto_property* at = properties;
    while ((at = mosquitto_property_read_varint(at, MQTT_PROP_SUBSCRIPTION_IDENTIFIER, &identifier, !named.empty())) !=
           nullptr) {
        named.push_back(identifier);
    }
    return named;
}

Handle newHandle(const std::string& clientId, bool cleanStart, void* owner) {
    static std::once_flag initialised;
    std::call_once(initialised, [] { mosquitto_lib_init(); });
    Handle handle(mosquitto_new(clientId.c_str(), cleanStart, owner));
    if (!handle) throw IPCException("Cannot create an MQTT client: " + common::reasonOf(errno));
    mosquitto_int_option(handle.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(handle.get(), MOSQ_OPT_TCP_NODELAY, 1);
    return handle;
}

std::string resultText(int result, int systemError) {
    return result == MOSQ_ERR_ERRNO ? common::reasonOf(systemError) : std::string(mosquitto_strerror(result));
}

std::string lossText(int reason, int systemError) {
    if (reason >= 128) return mosquitto_reason_string(reason);
    // libmosquitto reports a socket closed within a packet as a system error, whose text would be "Success".
    return resultText(reason == MOSQ_ERR_ERRNO && systemError == 0 ? MOSQ_ERR_CONN_LOST : reason, systemError);
}

std::string handshakeFailureText(int reason, int systemError) {
    switch (reason) {
        case MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION:
            return "it refuses MQTT v5";
        case MOSQ_ERR_PROTOCOL:
        case MOSQ_ERR_MALFORMED_PACKET:
            return "its answer is not MQTT v5";
        case MOSQ_ERR_CONN_LOST:
            return "it closed the connection";
        case MOSQ_ERR_ERRNO:
            return systemError == 0 ? "it closed the connection" : common::reasonOf(systemError);
        default:
            return lossText(reason, systemError);
    }
}

bool topicMatches(const std::string& filter, std::string_view topic) {
    bool matches = false;
    return mosquitto_topic_matches_sub2(filter.c_str(), filter.size(), topic.data(), topic.size(), &matches) ==
               MOSQ_ERR_SUCCESS &&
           matches;
}

}  // namespace ipc

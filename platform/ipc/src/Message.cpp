#include "Message.h"

#include <mosquitto.h>

#include <algorithm>

#include "ipc/IPCException.h"

namespace ipc {

namespace {

// Brokers cut off who publishes on a topic of more levels; kept until it is acknowledged, it would do so for ever.
constexpr std::ptrdiff_t maxSlashes = 200;
constexpr std::size_t maxCorrelationData = 65535;

bool hasNul(std::string_view text) { return text.find('\0') != std::string_view::npos; }

/// MQTT's idea of UTF-8, in which there is no NUL.
bool isUtf8(std::string_view text) {
    return mosquitto_validate_utf8(text.data(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
}

bool isTopic(std::string_view topic) {
    return !topic.empty() && std::count(topic.begin(), topic.end(), '/') <= maxSlashes &&
           mosquitto_pub_topic_check2(topic.data(), topic.size()) == MOSQ_ERR_SUCCESS && isUtf8(topic);
}

}  // namespace

void requirePublishable(const Message& message) {
    if (!isTopic(message.topic) || hasNul(message.responseTopic) ||
        message.correlationData.size() > maxCorrelationData || message.payload.size() > maxPacket) {
        throw IPCException("Not a message that can be published: \"" + std::string(message.topic) + "\"");
    }
}

void requireFilter(const std::string& filter) {
    const bool isFilter = !filter.empty() &&
                          mosquitto_sub_topic_check2(filter.data(), filter.size()) == MOSQ_ERR_SUCCESS &&
                          isUtf8(filter);
    if (!isFilter) throw IPCException("Not a topic filter: \"" + filter + "\"");
}

}  // namespace ipc

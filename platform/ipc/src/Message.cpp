#include "Message.h"

#include <mosquitto.h>

#include <algorithm>

#include "ipc/IPCException.h"

namespace ipc {

namespace {

// Brokers disconnect a client that publishes on a deeper topic. As the message is kept until it is acknowledged, that
// would repeat for ever.
constexpr std::ptrdiff_t maxSlashes = 200;
constexpr std::size_t maxCorrelationData = 65535;

bool hasNul(std::string_view text) { return text.find('\0') != std::string_view::npos; }

/// UTF-8 as MQTT defines it: without NUL.
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
        throw IPCException("The topic is invalid or the message is too large: \"" + std::string(message.topic) + "\"");
    }
}

void requireFilter(const std::string& filter) {
    const bool isFilter = !filter.empty() &&
                          mosquitto_sub_topic_check2(filter.data(), filter.size()) == MOSQ_ERR_SUCCESS &&
                          isUtf8(filter);
    if (!isFilter) throw IPCException("Invalid topic filter: \"" + filter + "\"");
}

}  // namespace ipc

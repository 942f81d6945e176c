#include "Mqtt.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "ipc/IPCException.h"

namespace ipc {

namespace {

// Depending on the C library, strerror_r returns the text, or whether it wrote the text into the buffer.
[[maybe_unused]] const char* textOf(const char* text, const char* /*buffer*/) { return text; }
[[maybe_unused]] const char* textOf(int error, const char* buffer) { return error == 0 ? buffer : "unknown error"; }

}  // namespace

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

Handle newHandle(const std::string& clientId, bool cleanStart, void* owner) {
    static std::once_flag initialised;
    std::call_once(initialised, [] { mosquitto_lib_init(); });
    Handle handle(mosquitto_new(clientId.c_str(), cleanStart, owner));
    if (!handle) throw IPCException("Cannot create an MQTT client: " + systemText(errno));
    mosquitto_int_option(handle.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(handle.get(), MOSQ_OPT_TCP_NODELAY, 1);
    return handle;
}

std::string resultText(int result, int systemError) {
    return result == MOSQ_ERR_ERRNO ? systemText(systemError) : std::string(mosquitto_strerror(result));
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
            return systemError == 0 ? "it closed the connection" : systemText(systemError);
        default:
            return lossText(reason, systemError);
    }
}

std::string systemText(int systemError) {
    char buffer[128] = "";
    return textOf(strerror_r(systemError, buffer, sizeof buffer), buffer);
}

bool topicMatches(const std::string& filter, std::string_view topic) {
    bool matches = false;
    return mosquitto_topic_matches_sub2(filter.c_str(), filter.size(), topic.data(), topic.size(), &matches) ==
               MOSQ_ERR_SUCCESS &&
           matches;
}

}  // namespace ipc

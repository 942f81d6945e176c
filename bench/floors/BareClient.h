// The least that a client of the bus does: libmosquitto on one thread, no queues, no reconnection. Every failure
// throws.
#pragma once

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>

#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

namespace floors {

/// Not copyable; its callbacks run on the thread that calls `step` or `request`.
class BareClient {
 public:
    using OnMessage = std::function<void(const mosquitto_message&, const mosquitto_property*)>;

    BareClient(int port, const std::string& name, OnMessage onMessage = {})
        : onMessage_(std::move(onMessage)), replyTopic_(name + "/reply"), handle_(newHandle(name)) {
        mosquitto_subscribe_callback_set(handle_, [](mosquitto*, void* self, int, int, const int*) {
            static_cast<BareClient*>(self)->subscribed_ = true;
        });
        mosquitto_message_v5_callback_set(handle_, [](mosquitto*, void* self, const mosquitto_message* message,
                                                      const mosquitto_property* properties) {
            static_cast<BareClient*>(self)->arrived(*message, properties);
        });
        mosquitto_connect_v5_callback_set(
            handle_, [](mosquitto*, void* self, int, int, const mosquitto_property* said) {
                mosquitto_property_read_int16(said, MQTT_PROP_RECEIVE_MAXIMUM,
                                              &static_cast<BareClient*>(self)->receiveMaximum_, false);
            });
        mosquitto_publish_callback_set(handle_, [](mosquitto*, void* self, int identifier) {
            const auto& published = static_cast<BareClient*>(self)->onPublished_;
            if (published) published(identifier);
        });
        if (mosquitto_connect(handle_, "127.0.0.1", port, 600) != MOSQ_ERR_SUCCESS)
            throw std::runtime_error("cannot connect to the broker");
        subscribe(replyTopic_);
    }
    BareClient(const BareClient&) = delete;
    BareClient& operator=(const BareClient&) = delete;
    ~BareClient() { mosquitto_destroy(handle_); }

    void subscribe(const std::string& filter) {
        subscribed_ = false;
        mosquitto_subscribe(handle_, nullptr, filter.c_str(), 0);
        while (!subscribed_) step();
    }

    int socket() const { return mosquitto_socket(handle_); }
    mosquitto* handle() { return handle_; }

    /// `published` gets the identifier of each message that was sent with quality of service 0, or acknowledged.
    void onPublished(std::function<void(int)> published) { onPublished_ = std::move(published); }
    /// Messages with quality of service 1 that the broker takes before it acknowledges one.
    std::size_t receiveMaximum() const { return receiveMaximum_; }

    /// Waits for the next packets and handles them.
    void step() {
        pollfd waited{socket(), POLLIN, 0};
        if (poll(&waited, 1, -1) < 0) throw std::runtime_error("cannot wait");
        read();
    }
    void read() {
        if (mosquitto_loop_read(handle_, 1) != MOSQ_ERR_SUCCESS) throw std::runtime_error("connection lost");
        // What a callback published is still queued.
        if (mosquitto_want_write(handle_)) mosquitto_loop_write(handle_, 1);
    }

    /// Sends a request that is answered on `replyTopic_`.
    void send(const char* topic, const std::string& payload, const std::string& correlation) {
        mosquitto_property* properties = nullptr;
        mosquitto_property_add_string(&properties, MQTT_PROP_RESPONSE_TOPIC, replyTopic_.c_str());
        mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA, correlation.data(),
                                      static_cast<std::uint16_t>(correlation.size()));
        const int result = mosquitto_publish_v5(handle_, nullptr, topic, static_cast<int>(payload.size()),
                                                payload.data(), 0, false, properties);
        mosquitto_property_free_all(&properties);
        if (result != MOSQ_ERR_SUCCESS) throw std::runtime_error("cannot publish");
    }

    /// Sends a request and waits for its answer; throws if it is refused.
    void request(const char* topic, const std::string& payload) {
        answered_ = false;
        send(topic, payload, "12345678");
        while (!answered_) step();
        if (answer_.find("\"error\"") != std::string::npos) throw std::runtime_error("refused: " + answer_);
    }

 private:
    mosquitto* newHandle(const std::string& name) {
        mosquitto_lib_init();
        mosquitto* const handle = mosquitto_new(name.c_str(), true, this);
        if (handle == nullptr) throw std::runtime_error("no MQTT client");
        mosquitto_int_option(handle, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        mosquitto_int_option(handle, MOSQ_OPT_TCP_NODELAY, 1);
        return handle;
    }
    void arrived(const mosquitto_message& message, const mosquitto_property* properties) {
        if (onMessage_) onMessage_(message, properties);
        if (replyTopic_ != message.topic) return;
        answer_.assign(static_cast<const char*>(message.payload), static_cast<std::size_t>(message.payloadlen));
        answered_ = true;
    }

    const OnMessage onMessage_;
    const std::string replyTopic_;
    mosquitto* const handle_;
    std::function<void(int)> onPublished_;
    std::uint16_t receiveMaximum_ = 65535;
    bool subscribed_ = false;
    bool answered_ = false;
    std::string answer_;
};

inline std::string setRequest(const std::string& key, const std::string& value) {
    return R"({"param":")" + key + R"(","value":")" + value + R"(","source":"bench"})";
}

}  // namespace floors

// Messages, and thin wrappers around libmosquitto's bare pointers.
#pragma once

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ipc {

/// The largest packet that the broker may send to us, and the largest payload that we send.
constexpr std::uint32_t maxPacket = std::uint32_t{16} * 1024 * 1024;

/// A view of a text that ends with a NUL, as C asks for.
class CText : public std::string_view {
 public:
    CText() : CText("") {}
    // NOLINTBEGIN(google-explicit-constructor): as a std::string becomes a std::string_view
    CText(const std::string& text) : std::string_view(text) {}
    CText(const char* text) : std::string_view(text) {}
    // NOLINTEND(google-explicit-constructor)

    const char* c_str() const { return data(); }
};

/// An outgoing message, whose texts are someone else's.
struct Message {
    CText topic;
    std::string_view payload;
    int qualityOfService = 0;
    CText responseTopic;               // empty: none
    std::string_view correlationData;  // empty: none
};

/// The size in bytes that a queued message counts.
template <typename Kept>
std::size_t sizeOf(const Kept& message) {
    return message.topic.size() + message.payload.size() + message.responseTopic.size() +
           message.correlationData.size();
}

/// Throw IPCException if MQTT forbids it, or if a broker would close the connection because of it.
void requirePublishable(const Message& message);
void requireFilter(const std::string& filter);

bool topicMatches(const std::string& filter, std::string_view topic);

/// A property list to send. Texts must not contain NUL bytes; correlation data may contain any bytes.
class Properties {
 public:
    Properties() = default;
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;
    ~Properties() { mosquitto_property_free_all(&list_); }

    void add32(int identifier, std::uint32_t value) { mosquitto_property_add_int32(&list_, identifier, value); }
    void addVarint(int identifier, std::uint32_t value) { mosquitto_property_add_varint(&list_, identifier, value); }
    void addText(int identifier, CText value) { mosquitto_property_add_string(&list_, identifier, value.c_str()); }
    void addBinary(int identifier, std::string_view value) {
        mosquitto_property_add_binary(&list_, identifier, value.data(), static_cast<std::uint16_t>(value.size()));
    }
    const mosquitto_property* get() const { return list_; }

 private:
    mosquitto_property* list_ = nullptr;
};

/// A received message; valid only inside the callback that gets it.
struct Incoming {
    std::string_view topic;
    std::string_view payload;
    int qualityOfService = 0;
    const mosquitto_property* properties = nullptr;
    bool canNameSubscriptions = true;  // whether the broker supports that

    std::string responseTopic() const;    // empty: none
    std::string correlationData() const;  // empty: none

    /// The named subscriptions that the message matches, as the broker says.
    std::vector<std::uint32_t> subscriptions() const;
};

struct HandleDeleter {
    void operator()(mosquitto* handle) const { mosquitto_destroy(handle); }
};
using Handle = std::unique_ptr<mosquitto, HandleDeleter>;

/// A new MQTT v5 handle with Nagle's algorithm off. Throws IPCException if memory runs out.
Handle newHandle(const std::string& clientId, bool cleanStart, void* owner);

/// The text of a libmosquitto result; for MOSQ_ERR_ERRNO the system's text of `systemError`.
std::string resultText(int result, int systemError);

/// Why a connection to a broker ended, from libmosquitto's result or the broker's reason (128 or above).
std::string lossText(int reason, int systemError);

/// Why a connection ended before a broker accepted it; "it" in the text is the peer.
std::string handshakeFailureText(int reason, int systemError);

}  // namespace ipc

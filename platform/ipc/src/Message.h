// An outgoing message, and the checks of MQTT's and the brokers' limits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ipc {

struct Message {
    std::string_view topic;
    std::string_view payload;
    int qualityOfService = 0;
    std::string responseTopic;    // empty: none
    std::string correlationData;  // empty: none
};

/// The largest packet that the broker may send to us, and the largest payload that we send.
constexpr std::uint32_t maxPacket = std::uint32_t{16} * 1024 * 1024;

/// The size in bytes that a queued message counts.
template <typename Kept>
std::size_t sizeOf(const Kept& message) {
    return message.topic.size() + message.payload.size() + message.responseTopic.size() +
           message.correlationData.size();
}

/// Throw IPCException if MQTT forbids it, or if a broker would close the connection because of it.
void requirePublishable(const Message& message);
void requireFilter(const std::string& filter);

}  // namespace ipc

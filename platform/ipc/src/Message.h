// One message on its way out, and what MQTT and brokers accept of it.
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

/// The largest packet that the broker may send us, and the largest payload that we send.
constexpr std::uint32_t maxPacket = std::uint32_t{16} * 1024 * 1024;

/// What counts of a message, or of its copy, that has to be kept.
template <typename Kept>
std::size_t sizeOf(const Kept& message) {
    return message.topic.size() + message.payload.size() + message.responseTopic.size() +
           message.correlationData.size();
}

/// Each throws IPCException if MQTT does not allow it, or if a broker would cut the connection for it.
void requirePublishable(const Message& message);
void requireFilter(const std::string& filter);

}  // namespace ipc

// Outgoing messages: those with quality of service 1 are kept until the broker acknowledges them, and the packets that
// wait for the socket are counted. It does not know the connection; its owner sends.
//
// No locking of its own: guarded by the connection's mutex.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "Mqtt.h"

namespace ipc {

/// What a bulk sender must wait for: the socket to take the data, or the broker to acknowledge it.
enum class Congestion { none, unsent, unacknowledged };

class Outbox {
 public:
    /// Messages that may wait for the broker, and packets that may wait for the socket.
    static constexpr std::size_t maxWaiting = 10000;
    /// From half of maxWaiting, from these bytes, or from limitUnacknowledged on, a bulk sender must wait.
    static constexpr std::size_t congestionBytes = std::size_t{4} * 1024 * 1024;

    /// `identifier` is `unsent`, the message identifier on the connection, or `refused` before the entry is dropped.
    struct Entry {
        static constexpr int unsent = 0;
        static constexpr int refused = -1;

        std::string topic;
        std::string payload;
        int qualityOfService = 0;
        bool retain = false;
        std::string responseTopic;
        std::string correlationData;
        int identifier = unsent;

        Message message() const { return {topic, payload, qualityOfService, responseTopic, correlationData}; }
    };

    bool isFull() const { return entries_.size() >= maxWaiting; }
    bool isEmpty() const { return entries_.empty(); }
    std::size_t size() const { return entries_.size(); }

    /// The reference is valid until the next call that adds or removes an entry.
    Entry& add(const Message& message, bool retain);
    /// Removes the message and returns its topic, or nothing if no message has this identifier.
    std::optional<std::string> settle(int identifier);
    void dropTopic(std::string_view topic);
    /// Returns whether there was one.
    bool dropRefused();

    /// Marks all messages as unsent and the socket as empty.
    void startConnection();
    /// Oldest first: the order in which a new connection resends.
    std::deque<Entry>& entries() { return entries_; }

    /// A packet does not fit into the socket; its message has `bytes`.
    void noteUnsent(std::size_t bytes);
    /// The socket has taken all data.
    void noteAllSent();
    std::size_t unsent() const { return unsent_; }
    bool isSocketFull() const { return unsent_ >= maxWaiting; }

    /// The broker takes no more messages than these before it acknowledges one: what is published beyond them waits,
    /// while messages with quality of service 0 would overtake it.
    void limitUnacknowledged(std::size_t most) { unacknowledgedLimit_ = most; }
    Congestion congestion() const;

 private:
    template <typename Condition>
    bool dropIf(Condition condition);

    std::deque<Entry> entries_;
    std::size_t bytes_ = 0;
    std::size_t unacknowledgedLimit_ = maxWaiting / 2;
    std::size_t unsent_ = 0;  // packets since the socket last took all data
    std::size_t unsentBytes_ = 0;
};

}  // namespace ipc

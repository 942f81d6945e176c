// What the broker has yet to take: messages with quality of service 1, each kept until the broker acknowledges it, and
// how far the socket is behind with what was written to it. It knows no connection; its owner sends.
//
// No locking of its own: guarded by the connection's mutex.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "Message.h"

namespace ipc {

/// What a bulk sender must wait for: that the socket takes what was sent, or that the broker acknowledges it.
enum class Congestion { none, unsent, unacknowledged };

class Outbox {
 public:
    /// Messages that may wait for the broker, and packets that may wait for the socket.
    static constexpr std::size_t maxWaiting = 10000;
    /// From half of these messages, from these bytes, or from limitUnacknowledged on, a bulk sender must wait.
    static constexpr std::size_t manyBytes = std::size_t{4} * 1024 * 1024;

    /// A message moves from `unsent` to a message identifier of the connection, or to `refused` and then out.
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

    /// The entry stays where it is until the next call that adds or removes one.
    Entry& add(const Message& message, bool retain);
    /// Takes the message out; returns its topic, or nothing if no message has this identifier.
    std::optional<std::string> settle(int identifier);
    void dropTopic(std::string_view topic);
    /// Returns whether there was one.
    bool dropRefused();

    /// On a new connection everything is unsent, and the socket is behind with nothing.
    void startConnection();
    /// Oldest first: the order in which a new connection sends again.
    std::deque<Entry>& entries() { return entries_; }

    /// The socket did not take all of a packet; `bytes` of its message wait.
    void noteUnsent(std::size_t bytes);
    /// The socket has taken everything.
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
    std::size_t unsent_ = 0;  // packets since the socket last took everything
    std::size_t unsentBytes_ = 0;
};

}  // namespace ipc

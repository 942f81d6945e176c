// The subscriptions of a connection and the broker's answers to them on the present connection. It does not know the
// connection; its owner sends the subscriptions, on every new connection again.
//
//     add ──▶ pending ──answered──▶ granted or refused
//                ▲                        │
//                └── a new connection ◀───┘
//
// No locking of its own: guarded by the connection's mutex.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>

namespace ipc {

class Subscriptions {
 public:
    enum class Answer { pending, granted, refused };

    struct Subscription {
        std::string filter;
        int qualityOfService = 0;
        int retained = 0;      // one of MQTT_SUB_OPT_SEND_RETAIN_…
        bool isNamed = false;  // messages have its identifier
        unsigned users = 1;
        Answer answer = Answer::pending;
        std::string refusal;
    };

    /// Returns the subscription identifier. Users of the same filter share it, as a broker keeps one subscription for
    /// each filter of a client. It must be sent again for each further user, as that user wants the retained messages
    /// too. If one of them wants it named, it is.
    std::uint32_t add(const std::string& filter, int qualityOfService, int retained, bool isNamed);
    /// Returns the filter to unsubscribe from if that was its last user.
    std::optional<std::string> remove(std::uint32_t identifier);

    /// Returns null if the identifier was removed.
    const Subscription* find(std::uint32_t identifier) const;

    /// Marks all subscriptions as pending.
    void startConnection();
    const std::map<std::uint32_t, Subscription>& all() const { return all_; }

    /// The subscription was sent with this message identifier; or it cannot be sent, for this reason.
    void sent(std::uint32_t identifier, int message);
    void refuse(std::uint32_t identifier, const std::string& reason);
    /// The broker has answered; an empty `refusal` grants. Returns null if the subscription was removed meanwhile.
    const Subscription* answered(int message, const std::string& refusal);
    /// Whether every subscription sent on this connection is answered.
    bool isSettled() const { return unanswered_.empty(); }

    /// Throws IPCException if one was refused.
    void requireGranted() const;
    static void requireGranted(const Subscription& subscription);

 private:
    std::map<std::uint32_t, Subscription> all_;
    std::unordered_map<int, std::uint32_t> unanswered_;  // by message identifier
    std::uint32_t next_ = 1;
};

}  // namespace ipc

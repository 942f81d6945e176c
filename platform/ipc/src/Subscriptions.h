// What a connection is subscribed to: what its users want, what the broker has been asked on the present connection,
// and what it answered. It knows no connection; its owner asks the broker, again on every connection.
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
        int retained = 0;  // one of MQTT_SUB_OPT_SEND_RETAIN_…
        unsigned users = 1;
        Answer answer = Answer::pending;
        std::string refusal;
    };

    /// The identifier that the broker names in messages for the filter. Users of one filter share it, as a broker knows
    /// a filter once a client; it must be asked for again then, as the second user wants retained messages too.
    std::uint32_t add(const std::string& filter, int qualityOfService, int retained);
    /// The filter to unsubscribe from if that was its last user.
    std::optional<std::string> remove(std::uint32_t identifier);

    /// Null for an identifier that was removed.
    const Subscription* find(std::uint32_t identifier) const;

    /// Everything has to be asked for again.
    void startConnection();
    const std::map<std::uint32_t, Subscription>& all() const { return all_; }

    /// The broker was asked with the message identifier; or cannot be, for the reason.
    void asked(std::uint32_t identifier, int message);
    void refuse(std::uint32_t identifier, const std::string& reason);
    /// The broker has answered; an empty `refusal` grants. Null if nobody wants the subscription any more.
    const Subscription* answered(int message, const std::string& refusal);
    /// Whether everything that was asked on this connection is answered.
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

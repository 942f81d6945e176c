// One MQTT connection over libmosquitto, from CONNECT to its end. Each attempt is a new Link.
//
//     silent ──▶ answering ──CONNACK──▶ accepted
//       │            └───────CONNACK with a reason──▶ refused
//       └── any other first byte: over
//
// The link can end in every stage; then `isOver` is true and `failure` has the reason. `silent`: the peer has sent
// nothing. `answering`: the peer may be a broker.
//
// No locking of its own: guarded by the connection's mutex, as libmosquitto does not lock what it shares with its
// callbacks. Only `connect` may block; call it before the Link is shared. The listener is called inside `serve` and
// must not call back.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "BackOff.h"
#include "Mqtt.h"

namespace ipc {

class LinkListener {
 public:
    virtual ~LinkListener() = default;

    /// The broker has accepted the message, or refuses it with a reason of 128 or above.
    virtual void acknowledged(int identifier, int reason) = 0;
    /// The broker has answered a subscription; an empty `refusal` grants it.
    virtual void subscribed(int identifier, const std::string& refusal) = 0;
    /// Returns whether to continue reading; if not, nothing is read before `resumeReading`.
    virtual bool arrived(const Incoming& message) = 0;
};

class Link {
 public:
    using Clock = std::chrono::steady_clock;
    enum class Stage { silent, answering, accepted, refused };

    struct Options {
        std::string clientId;
        std::string userName;
        std::string willTopic;  // topic of the retained last will "offline"; empty: none
        bool cleanStart = true;
        std::uint32_t sessionSeconds = 0;
    };

    /// Throws IPCException if memory runs out.
    Link(const Options& options, LinkListener& listener);
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    /// Connects the socket and sends CONNECT. Returns why it failed, or an empty text. May block.
    std::string connect(const std::string& numericAddress, int port);

    Stage stage() const { return stage_; }
    bool isOver() const;
    /// Why it ended; empty while it has not.
    std::string failure() const;
    BackOff::Loss loss() const { return loss_; }
    /// Whether the peer ended it without a reason.
    bool isClosedByPeer() const { return closedByPeer_; }
    /// Ends the link for this reason, unless it has ended already.
    void fail(const std::string& cause);

    // ---- sending: returns libmosquitto's result; `serve` writes what does not fit into the socket at once ----

    int publish(const Message& message, bool retain, int* identifier);
    /// Messages name the `subscription` if the broker can; 0: they do not.
    int subscribe(const std::string& filter, int qualityOfService, int retained, std::uint32_t subscription,
                  int* identifier);
    void unsubscribe(const std::string& filter);
    /// Sends DISCONNECT; with `will` the broker still publishes the last will.
    void disconnect(bool will);
    /// Messages with quality of service 1 that may be unacknowledged at once; libmosquitto keeps back the others.
    std::size_t receiveMaximum() const { return receiveMaximum_; }
    bool hasPendingWrites() const { return mosquitto_want_write(handle_.get()); }
    /// False while reading is paused.
    bool mayRead() const { return !isOver() && !readingPaused_; }

    // ---- the loop of the network thread: wait for the descriptor, then one round ----

    int descriptor() const { return mosquitto_socket(handle_.get()); }
    /// The events to poll for; with `readAnyway`, input also while reading is paused.
    short eventsToAwait(bool readAnyway) const;
    Clock::time_point keepAliveAt() const { return keepAliveAt_; }

    void beginRound();
    /// Writes, and usually reads one packet; returns whether the link is still up.
    bool serve(short events);
    /// Sends a ping if one is due, and ends the link if the last one was not answered. Due again at `keepAliveAt`.
    void keepAlive();
    /// Data written from here to `uncork` or the end of the round is sent in as few TCP segments as possible. The
    /// system sends what is 200 ms old in any case.
    void cork();
    void uncork();
    /// Acknowledges what was read if `events` has POLLIN.
    void endRound(short events);

    /// Returns whether reading was paused.
    bool resumeReading();

 private:
    bool startsWithConnack();
    int readPacket();
    void noteWrite();

    /// Runs a callback. An exception must not reach libmosquitto, which is C: without memory the connection is lost.
    template <typename Function>
    void guarded(Function&& callback);

    static void onConnect(mosquitto*, void* self, int reason, int flags, const mosquitto_property*);
    static void onDisconnect(mosquitto*, void* self, int reason, const mosquitto_property*);
    static void onPublish(mosquitto*, void* self, int identifier, int reason, const mosquitto_property*);
    static void onSubscribe(mosquitto*, void* self, int identifier, int count, const int* granted,
                            const mosquitto_property*);
    static void onMessage(mosquitto*, void* self, const mosquitto_message* message, const mosquitto_property*);

    const Options options_;
    LinkListener& listener_;
    const Handle handle_;

    Stage stage_ = Stage::silent;
    std::string failure_;
    BackOff::Loss loss_ = BackOff::Loss::plain;
    bool closedByPeer_ = false;
    bool canNameSubscriptions_ = true;                    // the broker supports subscription identifiers
    std::uint16_t receiveMaximum_ = 20;                   // libmosquitto's own limit if the broker names none
    std::chrono::milliseconds keepAliveInterval_{60000};  // until the broker names its own
    Clock::time_point keepAliveAt_;

    // The current round.
    bool corked_ = false;
    bool wrote_ = false;
    bool reading_ = false;
    bool readingPaused_ = false;
};

}  // namespace ipc

// One connection to the broker that keeps itself alive; the bus client and the bus service are both built on it. It
// subscribes again and sends again what the broker has not acknowledged, on every connection.
//
//     idle ──open──▶ connecting ◀──time is up── pausing
//                     │      └────failed──────▶  ▲ ▲
//                     │ CONNACK                  │ │
//                     ▼                          │ │
//                 subscribing ───────lost────────┘ │
//                     │ every subscription answered│
//                     ▼                            │
//                   ready ───────────lost──────────┘
//
//     close:  subscribing, ready ──▶ flushing ──▶ ended,  any other ──▶ ended
//     a first attempt that fails, unless it is to be retried:  connecting ──▶ ended
//
// Threads: one network thread opens, reads and closes; it alone waits on the socket. Every operation may be called from
// any thread: one mutex guards the link and all state, and is never held over anything that waits. The listener is
// called on the network thread with that mutex held, but for `roundEnded`: it must not call back into the connection,
// run user code or wait.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "Address.h"
#include "BackOff.h"
#include "ConnectionLoss.h"
#include "Link.h"
#include "Message.h"
#include "Outbox.h"
#include "Subscriptions.h"
#include "Waker.h"
#include "common/ThreadSafety.h"

namespace ipc {

class ConnectionListener {
 public:
    virtual ~ConnectionListener() = default;

    /// The broker has accepted the connection and answered every subscription.
    virtual void connectionReady() = 0;
    /// A connection that was accepted is gone.
    virtual void connectionLost(const std::string& cause) = 0;
    /// Returns whether to go on reading; if not, nothing comes before `resumeReading`.
    virtual bool messageArrived(const Incoming& message) = 0;
    /// What had come is delivered. Called without the mutex: here the listener may use the connection and take its
    /// time, while nothing more is read.
    virtual void roundEnded() {}
    /// The broker has a message that was published with quality of service 1.
    virtual void messageAcknowledged(const std::string& topic) = 0;
};

class Connection : private LinkListener {
 public:
    using Clock = std::chrono::steady_clock;

    struct Options {
        std::string clientId;
        std::string userName;      // for the broker's access list; without a password
        bool keepSession = false;  // an hour over a cut; else every connection starts clean
        std::string statusTopic;   // when set: "online" and "offline" are kept there, retained
        bool logsItself = false;   // its losses and returns, when there is nobody to tell
    };

    static constexpr std::chrono::seconds connectTimeout{5};

    Connection(Options options, ConnectionListener& listener);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() override;

    /// Starts the network thread. With `forEver` it tries until it is closed; otherwise a first attempt that fails
    /// is the last. Throws IPCException if the address is invalid.
    void open(const std::string& host, bool forEver);

    /// Waits until every subscription is answered. Throws IPCException when the first attempt fails or takes too long,
    /// or a subscription is refused.
    void waitUntilReady() EXCLUDES(mutex_);

    /// Sends what is still to be sent as far as the broker takes it within half a second, says goodbye, ends the
    /// thread. Repeatable.
    void close() EXCLUDES(mutex_);

    /// Returns false when it was not sent: quality 0 while there is no connection. Quality 1 is always kept until it
    /// is acknowledged. Throws IPCException for a topic or payload that MQTT does not allow, and when too many wait.
    bool publish(const Message& message) EXCLUDES(mutex_);

    Congestion congestion() EXCLUDES(mutex_);

    /// How many messages the broker has yet to take or to acknowledge; 0 without a connection.
    std::size_t unsettled() EXCLUDES(mutex_);

    /// Inside `roundEnded`: what is published from here to its end leaves in as few segments as possible.
    void sendTogether() EXCLUDES(mutex_);

    /// The identifier that the broker names in messages for the filter. `retained` is one of
    /// MQTT_SUB_OPT_SEND_RETAIN_…. `registered` is called with it before the first message can come, as the listener is
    /// called: with the mutex held. Throws IPCException if the filter is invalid.
    std::uint32_t subscribe(const std::string& filter, int qualityOfService, int retained,
                            const std::function<void(std::uint32_t)>& registered = {}) EXCLUDES(mutex_);
    /// Waits for the broker's answer, 5 s at most. Throws IPCException when it refuses or does not answer.
    void waitForSubscription(std::uint32_t identifier) EXCLUDES(mutex_);
    void unsubscribe(std::uint32_t identifier) EXCLUDES(mutex_);

    /// From now on a lost session is not taken up again.
    void dropSession() EXCLUDES(mutex_);

    void resumeReading() EXCLUDES(mutex_);

 private:
    enum class State { idle, connecting, subscribing, ready, pausing, flushing, ended };
    /// How far any connection has come.
    enum class Best { nothing, accepted, ready };

    /// Whether there is a link on which messages may go out.
    bool isUp() const REQUIRES(mutex_) {
        return state_ == State::subscribing || state_ == State::ready || state_ == State::flushing;
    }
    bool isClosing() const REQUIRES(mutex_) { return state_ == State::flushing || state_ == State::ended; }

    // On the network thread: one attempt after another, and the rounds of one.
    void run() EXCLUDES(mutex_);
    BackOff::Loss attempt() REQUIRES(mutex_);
    std::unique_ptr<Link> dial(const std::string& numericAddress) REQUIRES(mutex_);
    void pump() REQUIRES(mutex_);
    bool mayGoOn() REQUIRES(mutex_);
    bool mayGoOnFlushing(Clock::time_point now) REQUIRES(mutex_);
    short waitForEvents() REQUIRES(mutex_);
    void serve(short events) REQUIRES(mutex_);
    void beginSubscribing() REQUIRES(mutex_);
    void becomeReady() REQUIRES(mutex_);
    BackOff::Loss afterLoss(const std::string& numericAddress) REQUIRES(mutex_);
    bool suspectsTakeover(const std::string& numericAddress) REQUIRES(mutex_);
    std::chrono::milliseconds held() const;

    // Inside Link::serve, on the network thread with mutex_ held.
    void acknowledged(int identifier, int reason) override;
    void subscribed(int identifier, const std::string& refusal) override;
    bool arrived(const Incoming& message) override;

    /// False if MQTT does not allow the message: it will never be sent.
    bool enqueue(const Message& message, bool retain) REQUIRES(mutex_);
    void send(Outbox::Entry& entry) REQUIRES(mutex_);
    void sendSubscription(std::uint32_t identifier) REQUIRES(mutex_);
    void noteWritten(std::size_t bytes) REQUIRES(mutex_);

    const Options options_;
    ConnectionListener& listener_;
    const Waker waker_;
    Address address_;       // constant once the thread runs
    bool forEver_ = false;  // likewise

    common::Mutex mutex_;
    common::ConditionVariable changed_;
    State state_ GUARDED_BY(mutex_) = State::idle;
    Best best_ GUARDED_BY(mutex_) = Best::nothing;
    bool keepSession_ GUARDED_BY(mutex_);
    std::unique_ptr<Link> link_ GUARDED_BY(mutex_) PT_GUARDED_BY(mutex_);  // replaced by the network thread only
    std::string failure_ GUARDED_BY(mutex_);                               // why the last link failed or ended
    Clock::time_point closeDeadline_ GUARDED_BY(mutex_);
    Subscriptions subscriptions_ GUARDED_BY(mutex_);
    Outbox outbox_ GUARDED_BY(mutex_);

    // The network thread's own.
    ConnectionLoss log_;
    Clock::time_point readyDeadline_;
    Clock::time_point readySince_;

    std::thread thread_;
};

}  // namespace ipc

// A connection to the broker that reconnects by itself; the bus client and the bus service are built on it. On every
// new connection it subscribes again and resends the messages that the broker has not acknowledged.
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
//     the first attempt fails and must not be retried:  connecting ──▶ ended
//
// Threads: one network thread opens, reads and closes. A thread that waits for a response may read meanwhile, in
// `serve`: then the response wakes no other thread. Every operation may be called from any thread: one mutex guards the
// link and all state, and is never held while waiting. The listener is called on the thread that reads, with that mutex
// held, except for `connecting` and `roundEnded`: it must not call back into the connection, run user code or wait.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "Awaited.h"
#include "BackOff.h"
#include "Link.h"
#include "Mqtt.h"
#include "Outbox.h"
#include "Subscriptions.h"
#include "System.h"
#include "common/ThreadSafety.h"
#include "ipc/Address.h"

namespace ipc {

class ConnectionListener {
 public:
    virtual ~ConnectionListener() = default;

    /// An attempt to connect begins. Called without the mutex, at most 40 s after this or `roundEnded` was called.
    virtual void connecting() {}
    /// The broker has accepted the connection and answered every subscription.
    virtual void connectionReady() = 0;
    /// An accepted connection was lost.
    virtual void connectionLost(const std::string& cause) = 0;
    /// Returns whether to continue reading; if not, no message arrives before `resumeReading`.
    virtual bool messageArrived(const Incoming& message) = 0;
    /// All messages read so far are delivered. Called without the mutex: here the listener may use the connection and
    /// may block; nothing is read meanwhile.
    virtual void roundEnded() {}
    /// The broker has acknowledged a message published with quality of service 1.
    virtual void messageAcknowledged(const std::string& topic) = 0;
};

/// When a message leaves: `withNext` is for a message that can wait for the next one, so that both are sent in one TCP
/// segment. It leaves at the end of the network thread's round, with the next `serve`, or 200 ms later at the latest.
enum class Departure { atOnce, withNext };

class Connection : private LinkListener {
 public:
    using Clock = std::chrono::steady_clock;

    struct Options {
        std::string clientId;
        std::string userName;      // for the broker's access list; without a password
        bool keepSession = false;  // for an hour after a loss; else every connection starts clean
        std::string statusTopic;   // if set, "online" and "offline" are published there, retained
        bool logsEvents = false;   // logs connections and losses; for an owner without callbacks
    };

    static constexpr std::chrono::seconds connectTimeout{5};

    Connection(Options options, ConnectionListener& listener);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() override;

    /// Starts the network thread. With `forEver` it retries until it is closed; otherwise it gives up if the first
    /// attempt fails. Throws IPCException if the address is invalid.
    void open(const std::string& host, bool forEver);

    /// Waits until every subscription is answered. Throws IPCException if the first attempt fails or takes too long, or
    /// if a subscription is refused.
    void waitUntilReady() EXCLUDES(mutex_);

    /// Sends pending messages for at most half a second, disconnects and ends the thread. Idempotent.
    void close() EXCLUDES(mutex_);

    /// Returns false if it was not sent: quality 0 without a connection. Quality 1 is kept until it is acknowledged.
    /// Throws IPCException if the topic or the payload is invalid, or if too many messages are queued.
    bool publish(const Message& message, Departure departure) EXCLUDES(mutex_);

    Congestion congestion() EXCLUDES(mutex_);

    /// Reads on the calling thread while its response is `awaited` (called with the mutex held, as the listener), until
    /// it is time or the connection is lost. Returns false at once if the connection is not ready, or another thread
    /// does so.
    bool serve(Clock::time_point until, const std::function<Awaited()>& awaited) EXCLUDES(mutex_);
    /// Lets `serve` check `awaited` again.
    void interruptServing() { caller_.wake(); }

    /// The number of messages not yet sent or not yet acknowledged; 0 without a connection.
    std::size_t outstanding() EXCLUDES(mutex_);

    /// Returns the subscription identifier. `retained` is one of MQTT_SUB_OPT_SEND_RETAIN_…. With `registered`, the
    /// broker names the identifier in messages for the filter, which costs it and the reader half a microsecond;
    /// `registered` is called with it before the first message can arrive, with the mutex held as for the listener.
    /// Throws IPCException if the filter is invalid.
    std::uint32_t subscribe(const std::string& filter, int qualityOfService, int retained,
                            const std::function<void(std::uint32_t)>& registered = {}) EXCLUDES(mutex_);
    /// Waits at most 5 s for the broker's answer. Throws IPCException if it refuses or does not answer.
    void waitForSubscription(std::uint32_t identifier) EXCLUDES(mutex_);
    void unsubscribe(std::uint32_t identifier) EXCLUDES(mutex_);

    /// From now on a reconnection does not resume the session.
    void dropSession() EXCLUDES(mutex_);

    void resumeReading() EXCLUDES(mutex_);

 private:
    enum class State { idle, connecting, subscribing, ready, pausing, flushing, ended };
    /// The furthest state that any connection has reached.
    enum class Milestone { none, accepted, ready };

    /// Whether there is a link that may send messages.
    bool isUp() const REQUIRES(mutex_) {
        return state_ == State::subscribing || state_ == State::ready || state_ == State::flushing;
    }
    bool isClosing() const REQUIRES(mutex_) { return state_ == State::flushing || state_ == State::ended; }

    // On the network thread.
    void run() EXCLUDES(mutex_);
    BackOff::Loss attempt() REQUIRES(mutex_);
    std::unique_ptr<Link> dial(const std::string& numericAddress) REQUIRES(mutex_);
    void pump() REQUIRES(mutex_);
    bool shouldContinue() REQUIRES(mutex_);
    bool shouldKeepFlushing(Clock::time_point now) REQUIRES(mutex_);
    short waitForEvents() REQUIRES(mutex_);
    bool serveLink(const SocketWait& wait, short events) REQUIRES(mutex_);
    void servePacket(short events) REQUIRES(mutex_);
    Awaited serveRound(short events, const std::function<Awaited()>& awaited, bool& mayLeaveInput) REQUIRES(mutex_);
    void beginSubscribing() REQUIRES(mutex_);
    void becomeReady() REQUIRES(mutex_);
    BackOff::Loss afterLoss(const std::string& numericAddress) REQUIRES(mutex_);
    void logLoss(BackOff::Loss loss) REQUIRES(mutex_);
    bool suspectsTakeover(const std::string& numericAddress) REQUIRES(mutex_);

    // Inside Link::serve, on the network thread with mutex_ held.
    void acknowledged(int identifier, int reason) override;
    void subscribed(int identifier, const std::string& refusal) override;
    bool arrived(const Incoming& message) override;

    bool write(const Message& message) REQUIRES(mutex_);
    /// False if MQTT does not allow the message: it will never be sent.
    bool enqueue(const Message& message, bool retain) REQUIRES(mutex_);
    void send(Outbox::Entry& entry) REQUIRES(mutex_);
    void sendSubscription(std::uint32_t identifier) REQUIRES(mutex_);
    void noteWritten(std::size_t bytes) REQUIRES(mutex_);

    const Options options_;
    ConnectionListener& listener_;
    const Waker waker_;
    const Waker caller_;    // wakes the thread in the public `serve`
    Address address_;       // constant once the thread runs
    bool forEver_ = false;  // likewise

    common::Mutex mutex_;
    common::ConditionVariable changed_;
    State state_ GUARDED_BY(mutex_) = State::idle;
    Milestone reached_ GUARDED_BY(mutex_) = Milestone::none;
    bool keepSession_ GUARDED_BY(mutex_);
    std::unique_ptr<Link> link_ GUARDED_BY(mutex_) PT_GUARDED_BY(mutex_);  // replaced by the network thread only
    std::string failure_ GUARDED_BY(mutex_);                               // why the last link failed or ended
    Clock::time_point closeDeadline_ GUARDED_BY(mutex_);
    Subscriptions subscriptions_ GUARDED_BY(mutex_);
    Outbox outbox_ GUARDED_BY(mutex_);

    SocketWait callerWait_{caller_};  // the thread in the public `serve` waits on it; the network thread changes it
    bool isServedByCaller_ GUARDED_BY(mutex_) = false;
    bool inputLeft_ GUARDED_BY(mutex_) = false;  // by the public `serve`; the network thread reads it

    // The network thread's own.
    SocketWait networkWait_{waker_};
    std::string lastLoggedFailure_;
    Clock::time_point readyDeadline_;
    Clock::time_point readySince_;  // the latest time if the last connection never was

    std::thread thread_;
};

}  // namespace ipc

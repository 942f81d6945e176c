// One connection to the broker that keeps itself alive; the bus client and the bus service are both built on it. It
// subscribes again and sends again what the broker has not acknowledged, on every connection.
//
// Threads: one network thread opens, reads and closes; it alone waits on the socket. Every operation may be called from
// any thread: one mutex guards the libmosquitto handle and all state, and is never held over anything that waits. The
// listener is called on the network thread with that mutex held, but for `roundEnded`: it must not call back into the
// connection, run user code or wait.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Address.h"
#include "BackOff.h"
#include "Mqtt.h"
#include "common/Descriptor.h"

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

class Connection {
 public:
    using Clock = std::chrono::steady_clock;

    struct Options {
        std::string clientId;
        std::string userName;      // for the broker's access list; without a password
        bool keepSession = false;  // an hour over a cut; else every connection starts clean
        std::string statusTopic;   // when set: "online" and "offline" are kept there, retained
        bool logsItself = false;   // its losses and returns, when there is nobody to tell
    };

    struct Message {
        std::string_view topic;
        std::string_view payload;
        int qualityOfService = 0;
        std::string responseTopic;    // empty: none
        std::string correlationData;  // empty: none
    };

    /// Messages with quality of service 1 that may wait for the broker, and those with 0 that may wait for the socket.
    static constexpr std::size_t maxWaiting = 10000;
    /// The largest packet that the broker may send us, and the largest payload that we send.
    static constexpr std::uint32_t maxPacket = std::uint32_t{16} * 1024 * 1024;
    static constexpr std::chrono::seconds connectTimeout{5};

    Connection(Options options, ConnectionListener& listener);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    /// Starts the network thread. With `forEver` it tries until it is closed; otherwise a first attempt that fails
    /// is the last. Throws IPCException for an address that is none.
    void open(const std::string& host, bool forEver);

    /// Waits until every subscription is answered. Throws IPCException when the first attempt fails or takes too long,
    /// or a subscription is refused.
    void waitUntilReady();

    /// Sends what is still to be sent as far as the broker takes it within half a second, says goodbye, ends the
    /// thread. Repeatable.
    void close();

    /// Returns false when it was not sent: quality 0 while there is no connection. Quality 1 is always kept until it
    /// is acknowledged. Throws IPCException for a topic or payload that MQTT does not allow, and when too many wait.
    bool publish(const Message& message);

    /// What a sender that has much to say should wait for before it goes on: that the socket takes what is sent, or
    /// that the broker acknowledges it.
    enum class Congestion { none, unsent, unacknowledged };
    Congestion congestion();

    /// How many messages the broker has yet to take or to acknowledge; 0 without a connection.
    std::size_t unsettled();

    /// Inside `roundEnded`: what is published from here to its end leaves in as few segments as possible.
    void sendTogether();

    /// The identifier that the broker names in messages for the filter. `retained` is one of
    /// MQTT_SUB_OPT_SEND_RETAIN_…. `registered` is called with it before the first message can come, as the listener is
    /// called: with the mutex held. Throws IPCException for a filter that is none.
    std::uint32_t subscribe(const std::string& filter, int qualityOfService, int retained,
                            const std::function<void(std::uint32_t)>& registered = {});
    /// Waits for the broker's answer, 5 s at most. Throws IPCException when it refuses or does not answer.
    void waitForSubscription(std::uint32_t identifier);
    void unsubscribe(std::uint32_t identifier);

    /// From now on a lost session is not taken up again.
    void dropSession();

    void resumeReading();

 private:
    struct Subscription {
        std::string filter;
        int qualityOfService = 0;
        int retained = 0;
        unsigned users = 1;
        bool answered = false;
        std::string refusal;
    };
    struct Waiting {
        std::string topic;
        std::string payload;
        int qualityOfService = 0;
        bool retain = false;
        std::string responseTopic;
        std::string correlationData;
        int mid = 0;  // 0: not handed to libmosquitto on this connection
    };
    using WaitingList = std::deque<Waiting>;

    // On the network thread.
    void run();
    void connectOnce(std::unique_lock<std::mutex>& lock);
    Clock::duration held() const;
    bool openHandle(std::unique_lock<std::mutex>& lock, const std::string& numericAddress);
    void pump(std::unique_lock<std::mutex>& lock);
    bool mayGoOn(Clock::time_point now);
    void service(short events);
    bool answersAsBroker();
    int readWhatCame();
    void accepted();
    void becomeReady();
    void suspectTakeover(std::unique_lock<std::mutex>& lock, const std::string& numericAddress);
    void afterLoss();
    void tellFailure();
    void waitToRetry(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds pause);

    static void onConnect(mosquitto*, void* self, int reason, int flags, const mosquitto_property*);
    static void onDisconnect(mosquitto*, void* self, int reason, const mosquitto_property*);
    static void onPublish(mosquitto*, void* self, int mid, int reason, const mosquitto_property*);
    static void onSubscribe(mosquitto*, void* self, int mid, int count, const int* granted, const mosquitto_property*);
    static void onMessage(mosquitto*, void* self, const mosquitto_message* message, const mosquitto_property*);

    // With mutex_ held.
    int send(const Message& message, bool retain, int* mid);
    void sendWaiting(Waiting& waiting);
    void enqueue(const Message& message, bool retain);
    void sendSubscription(std::uint32_t identifier, Subscription& subscription);
    void fail(const std::string& cause);
    WaitingList::iterator forget(const WaitingList::iterator& waiting);
    void cork();
    void wakeIfBehind();
    void caughtUp();
    void wake() const;

    const Options options_;
    ConnectionListener& listener_;
    const common::Descriptor wakeup_;  // eventfd
    Address address_;                  // constant once the thread runs
    bool forEver_ = false;

    std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    Handle handle_;
    bool answerBegun_ = false;  // the broker has sent something
    bool connackSeen_ = false;
    bool refused_ = false;       // by a broker, which said why
    bool closedByPeer_ = false;  // without a reason
    BackOff::Loss loss_ = BackOff::Loss::plain;
    bool identifiersAllowed_ = true;  // the broker takes subscription identifiers
    bool up_ = false;                 // the broker has accepted: messages may go out
    bool ready_ = false;              // and every subscription is answered
    bool everUp_ = false;
    bool everReady_ = false;
    bool closing_ = false;
    bool ended_ = false;  // the thread has given up or was closed
    bool sessionDropped_ = false;
    bool readingPaused_ = false;
    bool reading_ = false;
    bool corked_ = false;
    bool sent_ = false;        // something, in the round in hand
    std::string failure_;      // why this connection failed or ended
    std::string toldFailure_;  // why there is none, as it was logged last
    std::size_t backlog_ = 0;  // messages since the socket last took everything
    std::size_t backlogBytes_ = 0;
    std::size_t arrivals_ = 0;  // messages and acknowledgements so far
    Clock::time_point readyDeadline_;
    Clock::time_point readySince_;
    Clock::time_point closeDeadline_;
    Clock::time_point nextUpkeep_;
    std::map<std::uint32_t, Subscription> subscriptions_;
    std::unordered_map<int, std::uint32_t> unanswered_;  // subscriptions by message identifier
    std::uint32_t nextSubscription_ = 1;
    WaitingList waiting_;
    std::size_t waitingBytes_ = 0;

    std::thread thread_;
};

}  // namespace ipc

// A broker for one client that withholds acknowledgements of publishes until the test asks for them.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace fakes {

/// Implements just enough MQTT v5: accepts the connection and every subscription. The destructor ends it.
class StubbornBroker {
 public:
    /// `receiveMaximum` is how many unacknowledged messages with quality of service 1 the client may have sent.
    /// If `keepAlive` is not 0, it demands a ping after that many silent seconds.
    explicit StubbornBroker(std::uint16_t receiveMaximum = 65535, std::uint16_t keepAlive = 0);
    StubbornBroker(const StubbornBroker&) = delete;
    StubbornBroker& operator=(const StubbornBroker&) = delete;
    ~StubbornBroker();

    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

    /// Once the client has subscribed, sends it `times` messages with QoS 0.
    void send(const std::string& topic, const std::string& payload, std::size_t times,
              const std::string& correlationData = "");
    /// Once the client has subscribed, sends it an empty message with QoS 0, a ping response and `times` such messages
    /// on the second topic, all in one TCP segment.
    void sendAroundPingResponse(const std::string& firstTopic, const std::string& secondTopic, int times);
    /// Once the client has subscribed, sends it an empty message with QoS 0 and ends the connection in the same TCP
    /// segment; the next one is accepted.
    void sendAndEnd(const std::string& topic);
    /// Whether the client has received everything sent.
    bool isTaken() const { return toSend_ == 0; }

    /// The number of connections on which the client has subscribed.
    int connections() const { return connections_; }

    /// Topics of all publishes, in order of arrival.
    std::vector<std::string> published() const;

    /// The number of TCP segments with data that the current connection has received.
    int segments() const { return segments_; }

    /// Withholds the answers to subscriptions until `answerSubscriptions`.
    void holdSubscriptions() { holdsSubscriptions_ = true; }
    void answerSubscriptions();
    /// The number of unanswered subscriptions.
    std::size_t heldSubscriptions() const { return heldCount_; }

    /// The number of pings received.
    int pings() const { return pings_; }
    /// Answers no ping from now on.
    void ignorePings() { ignoresPings_ = true; }

    /// The number of unacknowledged publishes.
    std::size_t owed() const { return owedCount_; }

    /// Closes the connection; the next one is accepted.
    void hangUp();

    /// Reports to the client that its session was taken over, and closes the connection; the next one is accepted.
    void takeOver();

    /// Acknowledges all publishes, earlier ones included, from now on.
    void giveIn();

 private:
    void run();
    bool talk(int client);
    std::size_t takePacket(const std::string& bytes);
    void answer(int type, const std::string& packet);
    void acceptSubscriptions();

    const int wakeup_;
    const std::uint16_t receiveMaximum_;
    const std::uint16_t keepAlive_;
    int port_ = 0;
    int listener_ = -1;
    std::atomic<std::size_t> toSend_{0};
    std::atomic<std::size_t> owedCount_{0};
    std::atomic<std::size_t> heldCount_{0};
    std::atomic<int> connections_{0};
    std::atomic<int> pings_{0};
    std::atomic<int> segments_{0};
    std::atomic<bool> ignoresPings_{false};
    std::atomic<bool> givesIn_{false};
    std::atomic<bool> hangsUp_{false};
    std::atomic<bool> takesOver_{false};
    std::atomic<bool> endsAfterMessage_{false};
    std::atomic<bool> holdsSubscriptions_{false};
    std::atomic<bool> stopping_{false};
    mutable std::mutex mutex_;
    std::vector<std::string> published_;  // guarded by mutex_
    std::string message_;                 // constant while toSend_ is not 0

    // Used by the thread only.
    std::string input_;
    std::string output_;
    std::vector<std::string> owed_;           // message identifiers
    std::vector<std::string> subscriptions_;  // message identifiers of unanswered subscriptions
    bool subscribed_ = false;

    std::thread thread_;
};

}  // namespace fakes

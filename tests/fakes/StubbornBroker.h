// A broker for one client that does not acknowledge what the client publishes until it is told to.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace fakes {

/// Speaks just enough MQTT v5 by hand: it accepts the connection and every subscription. Ends with the destructor.
class StubbornBroker {
 public:
    /// `receiveMaximum` is how many unacknowledged messages with quality of service 1 the client may have sent.
    explicit StubbornBroker(std::uint16_t receiveMaximum = 65535);
    StubbornBroker(const StubbornBroker&) = delete;
    StubbornBroker& operator=(const StubbornBroker&) = delete;
    ~StubbornBroker();

    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

    /// Sends the client, once it has subscribed, `times` messages of quality 0.
    void send(const std::string& topic, const std::string& payload, std::size_t times,
              const std::string& correlationData = "");
    /// Whether the client has taken everything that was sent.
    bool isTaken() const { return toSend_ == 0; }

    /// Connections on which the client has subscribed.
    int connections() const { return connections_; }

    /// The topics of everything that was published, in order of arrival.
    std::vector<std::string> published() const;

    /// From now on subscriptions are not answered, until `answerSubscriptions`.
    void holdSubscriptions() { holdsSubscriptions_ = true; }
    void answerSubscriptions();
    /// How many subscriptions wait for their answer.
    std::size_t heldSubscriptions() const { return heldCount_; }

    /// How many publications wait for their acknowledgement.
    std::size_t owed() const { return owedCount_; }

    /// Cuts the connection; the next one is welcome.
    void hangUp();

    /// Tells the client that another one has taken over its session, and cuts the connection; the next one is welcome.
    void takeOver();

    /// From now on everything is acknowledged, what came before as well.
    void giveIn();

 private:
    void run();
    bool talk(int client);
    std::size_t takePacket(const std::string& bytes);
    void answer(int type, const std::string& packet);
    void acceptSubscriptions();

    const int wakeup_;
    const std::uint16_t receiveMaximum_;
    int port_ = 0;
    int listener_ = -1;
    std::atomic<std::size_t> toSend_{0};
    std::atomic<std::size_t> owedCount_{0};
    std::atomic<std::size_t> heldCount_{0};
    std::atomic<int> connections_{0};
    std::atomic<bool> givesIn_{false};
    std::atomic<bool> hangsUp_{false};
    std::atomic<bool> takesOver_{false};
    std::atomic<bool> holdsSubscriptions_{false};
    std::atomic<bool> stopping_{false};
    mutable std::mutex mutex_;
    std::vector<std::string> published_;  // guarded by mutex_
    std::string message_;                 // constant while toSend_ is not 0

    // The thread's own.
    std::string input_;
    std::string output_;
    std::vector<std::string> owed_;           // message identifiers
    std::vector<std::string> subscriptions_;  // message identifiers of those not answered yet
    bool subscribed_ = false;

    std::thread thread_;
};

}  // namespace fakes

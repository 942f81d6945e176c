// The bus client over one Connection: presence, requests and their answers, and the deliveries to callbacks.
//
// Threads: a caller of `request` waits for its turn itself and sends itself; the network thread completes the answer.
// Lock order: Connection's mutex before mutex_; so no operation of the connection is called with mutex_ held.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Connection.h"
#include "Delivery.h"
#include "ipc/IIPCClient.h"

namespace ipc {

class Client final : public IIPCClient, private ConnectionListener {
 public:
    Client(const std::string& name, std::string host, bool transient);
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() override;

    void connect(const std::string& host) override;
    void disconnect() override;
    void subscribe(const std::string& topicFilter, IIPCCallback& callback) override;
    void publish(const std::string& topic, const std::string& payload, int qualityOfService) override;
    void watchPresence(const std::string& statusTopic) override;
    std::string request(const std::string& topic, const std::string& payload, const std::string& statusTopic,
                        std::chrono::milliseconds timeout) override;
    bool waitForService(const std::string& statusTopic, std::chrono::milliseconds patience) override;
    std::uint64_t answersReceived() const override { return answers_; }
    void limitRequests(std::chrono::milliseconds limit) override;

 private:
    using Clock = std::chrono::steady_clock;
    enum class State { fresh, connecting, connected, disconnected };
    enum class Presence { unknown, online, offline };
    enum class Step { send, wait, finish };
    enum class Lost { nothing, connection, service };

    struct Pending {
        explicit Pending(const std::string& topic) : statusTopic(topic) {}
        const std::string& statusTopic;
        bool sent = false;
        bool answered = false;
        Lost lost = Lost::nothing;  // after it was sent, and before its answer came
        std::string answer;
        std::condition_variable changed;
    };
    struct WatchedService {
        Presence presence = Presence::unknown;
        std::optional<Clock::time_point> lastOnline;  // when it went; unset if it never was online
    };
    struct Route {
        std::uint32_t subscription;
        std::string filter;
        std::shared_ptr<Delivery> delivery;
    };

    // On the network thread.
    void connectionReady() override;
    void connectionLost(const std::string& cause) override;
    bool messageArrived(const Incoming& message) override;
    void messageAcknowledged(const std::string& topic) override;
    void completeRequest(const Incoming& message);

    // With mutex_ held.
    Step nextStep(const Pending& pending, Clock::time_point deadline, Clock::time_point& until) const;
    Clock::time_point limited(Clock::time_point deadline, Clock::time_point begun) const;
    void setPresence(const std::string& statusTopic, WatchedService& service, Presence presence);
    void wakeAll();
    std::shared_ptr<Delivery> eventsOf(const IIPCCallback& callback) const;
    std::shared_ptr<Delivery> dropRoute(const std::shared_ptr<Delivery>& delivery);

    const std::string host_;
    const std::string replyTopic_;
    const std::uint64_t firstRequest_;  // numbers before it are not ours

    std::mutex ending_;  // one disconnect at a time; taken before mutex_

    std::mutex mutex_;
    std::condition_variable left_;             // a request or a wait for a service has left
    std::condition_variable presenceChanged_;  // or requests are limited, or the client ends
    // Guarded by mutex_.
    State state_ = State::fresh;
    bool destroying_ = false;
    bool ready_ = false;
    Clock::time_point since_;                                      // of the present connection or of its loss
    std::map<std::string, WatchedService, std::less<>> services_;  // by status topic
    unsigned serviceWaits_ = 0;
    std::optional<std::chrono::milliseconds> limit_;
    Clock::time_point limitedSince_;
    std::unordered_map<std::uint64_t, Pending*> pending_;
    std::uint64_t nextRequest_;
    std::vector<Route> routes_;
    std::vector<std::shared_ptr<Delivery>> events_;  // one for each callback object

    std::atomic<std::uint64_t> answers_{0};

    Connection connection_;  // last: its thread calls into everything above
};

}  // namespace ipc

// The bus client over one Connection: presence, requests and their answers, and the deliveries to callbacks.
//
// Threads: a caller of `request` waits for its turn itself and sends itself; the network thread completes the answer.
// Lock order: Connection's mutex before mutex_; so no operation of the connection is called with mutex_ held.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
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

 private:
    using Clock = std::chrono::steady_clock;
    enum class State { fresh, connecting, connected, disconnected };
    enum class Presence { unknown, online, offline };
    enum class Turn { send, wait, answered };

    struct Pending {
        bool sent = false;
        bool answered = false;
        bool interrupted = false;  // the connection broke after it was sent
        std::string answer;
        std::condition_variable changed;
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
    Turn whoseTurn(const Pending& pending, const std::string& statusTopic, Clock::time_point deadline,
                   Clock::time_point& until) const;
    void wakeAll();
    void prepareEvents(IIPCCallback& callback);

    const std::string host_;
    const std::string replyTopic_;

    std::mutex ending_;  // one disconnect at a time; taken before mutex_

    std::mutex mutex_;
    std::condition_variable left_;  // a request has left
    // Guarded by mutex_.
    State state_ = State::fresh;
    bool destroying_ = false;
    bool ready_ = false;
    Clock::time_point since_;  // of the present connection or of its loss
    std::map<std::string, Presence, std::less<>> presence_;
    std::unordered_map<std::uint64_t, Pending*> pending_;
    std::uint64_t nextRequest_;
    std::vector<Route> routes_;
    std::vector<std::shared_ptr<Delivery>> events_;  // one for each callback object

    Connection connection_;  // last: its thread calls into everything above
};

}  // namespace ipc

// The bus client over one Connection: subscriptions and deliveries to their callbacks. Requests are in Requests.
//
// Threads: the network thread hands messages to deliveries and answers to requests, and runs no callback.
// Lock order: Connection's mutex before mutex_, so never call the connection with mutex_ held.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Connection.h"
#include "Delivery.h"
#include "Requests.h"
#include "common/ThreadSafety.h"
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
    std::uint64_t answersReceived() const override { return requests_.answers(); }
    void limitRequests(std::chrono::milliseconds limit) override;

 private:
    enum class State { fresh, connecting, connected, disconnected };

    struct Route {
        std::uint32_t subscription;
        std::string filter;
        std::shared_ptr<Delivery> delivery;
    };
    using Deliveries = std::vector<std::shared_ptr<Delivery>>;

    // On the network thread.
    void connectionReady() override;
    void connectionLost(const std::string& cause) override;
    bool messageArrived(const Incoming& message) override;
    void messageAcknowledged(const std::string& topic) override;

    Deliveries allDeliveries() const REQUIRES(mutex_);
    std::shared_ptr<Delivery> eventsOf(const IIPCCallback& callback) const REQUIRES(mutex_);
    std::shared_ptr<Delivery> eventsFor(IIPCCallback& callback) EXCLUDES(mutex_);
    State addRoute(const Route& route, const std::shared_ptr<Delivery>& events) EXCLUDES(mutex_);
    std::shared_ptr<Delivery> dropRoute(const std::shared_ptr<Delivery>& delivery) EXCLUDES(mutex_);

    const std::string host_;
    const std::string replyTopic_;

    common::Mutex ending_;  // one disconnect at a time; taken before mutex_

    common::Mutex mutex_;
    State state_ GUARDED_BY(mutex_) = State::fresh;
    std::vector<Route> routes_ GUARDED_BY(mutex_);
    Deliveries events_ GUARDED_BY(mutex_);  // connection events, one queue for each callback object

    Requests requests_;  // has its own mutex

    Connection connection_;  // last: its thread calls into everything above
};

}  // namespace ipc

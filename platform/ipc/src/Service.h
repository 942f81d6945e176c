// The bus service over one Connection, on its network thread alone: handing a request to another thread takes a good
// part of the time that it takes in all. Requests that came together are handled together, and what the handler returns
// leaves together and in its order.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "Connection.h"
#include "common/ThreadSafety.h"
#include "ipc/IIPCService.h"

namespace ipc {

class Service final : public IIPCService, private ConnectionListener {
 public:
    explicit Service(std::string name);
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service() override;

    void start(const std::string& host, const std::string& statusTopic, const std::vector<std::string>& topics,
               Handler handler) override;
    void stop() override;

 private:
    // On the network thread.
    void connectionReady() override {}
    void connectionLost(const std::string& cause) override;
    bool messageArrived(const Incoming& message) override;
    void messageAcknowledged(const std::string&) override {}
    void roundEnded() override;

    bool isFull(std::size_t times) const;
    void handleSome() noexcept REQUIRES(round_);
    void waitUntilTaken() REQUIRES(round_);
    std::size_t unsettled() const REQUIRES(round_);
    bool send() REQUIRES(round_);

    const std::string name_;
    Handler handler_;                         // constant once started
    std::unique_ptr<Connection> connection_;  // constant once started
    std::atomic<bool> stopping_{false};

    common::Mutex round_;  // held while requests are handled and answered
    common::ConditionVariable allTaken_;
    std::deque<OutgoingMessage> outbox_ GUARDED_BY(round_);

    // The network thread's own.
    std::deque<ServiceRequest> inbox_;
    std::size_t inboxBytes_ = 0;
    std::vector<ServiceRequest> batch_;
    bool paused_ = false;
    bool dropping_ = false;
};

}  // namespace ipc

// The bus service over one Connection. The handler runs on the network thread: handing requests to another thread would
// cost a good part of a request's latency. Requests that arrive together are handled in one batch, and the messages
// that the handler returns are sent together, in order.
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
    Service(std::string name, ServiceEvents events);
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service() override;

    void start(const std::string& host, const std::string& statusTopic, const std::vector<std::string>& topics,
               Handler handler) override;
    void stop() override;

 private:
    // On the network thread.
    void connecting() override { alive(); }
    void connectionReady() override {}
    void connectionLost(const std::string& cause) override;
    bool messageArrived(const Incoming& message) override;
    void messageAcknowledged(const std::string& topic) override;
    void roundEnded() override;

    void alive() const;
    void reportOnline();
    bool isFull(std::size_t times) const;
    void handleBatch() noexcept REQUIRES(round_);
    void waitUntilDrained() REQUIRES(round_);
    std::size_t outstanding() const REQUIRES(round_);
    bool send() REQUIRES(round_);

    const std::string name_;
    const ServiceEvents events_;
    Handler handler_;                         // constant once started
    std::string statusTopic_;                 // constant once started
    std::unique_ptr<Connection> connection_;  // constant once started
    std::atomic<bool> stopping_{false};

    common::Mutex round_;  // held while requests are handled and answered
    common::ConditionVariable drained_;
    std::deque<OutgoingMessage> outbox_ GUARDED_BY(round_);

    // The network thread's own.
    std::deque<ServiceRequest> inbox_;
    std::size_t inboxBytes_ = 0;
    std::vector<ServiceRequest> batch_;
    bool paused_ = false;
    bool dropping_ = false;
    bool online_ = false;  // accepted by the broker and not yet reported
};

}  // namespace ipc

// The bus service over one Connection: the network thread collects requests, the handler thread works them off in
// batches and sends what the handler returns.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Connection.h"
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
    void connectionLost(const std::string&) override {}
    bool messageArrived(const Incoming& message) override;
    void messageAcknowledged(const std::string&) override {}

    void handleRequests();
    void answer(const std::vector<ServiceRequest>& batch) noexcept;

    const std::string name_;
    Handler handler_;  // constant once started

    std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    std::vector<ServiceRequest> inbox_;
    std::size_t inboxBytes_ = 0;
    bool paused_ = false;
    bool stopping_ = false;

    std::unique_ptr<Connection> connection_;  // constant once started
    std::thread thread_;
};

}  // namespace ipc

// A bus client that records its calls in order; the test delivers the messages.
//
// Threads: any. `deliver` calls the callback on the caller's thread. The real bus has a thread per subscription, so a
// test of concurrent deliveries uses two threads.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ipc/IIPCClient.h"

namespace fakes {

class FakeBus : public ipc::IIPCClient {
 public:
    void connect(const std::string& host) override;
    void disconnect() override;
    void subscribe(const std::string& topicFilter, ipc::IIPCCallback& callback) override;
    void publish(const std::string& topic, const std::string& payload, int qualityOfService) override;
    void watchPresence(const std::string& statusTopic) override;
    std::string request(const std::string& topic, const std::string& payload, const std::string& statusTopic,
                        std::chrono::milliseconds timeout) override;

    /// Passes the message to every subscription that matches the topic; returns their number.
    std::size_t deliver(const std::string& topic, const std::string& content);
    /// Delivers {"param": key, "value": value}.
    std::size_t deliver(const std::string& topic, const std::string& key, const std::string& value);

    /// Every call whose record begins with `call` ("connect", "publish prov-client/watchdog") throws IPCException.
    void failOn(const std::string& call, const std::string& reason);

    /// "subscribe TOPIC", "connect HOST", "publish TOPIC PAYLOAD QOS", "disconnect", in order, including failed calls.
    std::vector<std::string> calls() const;
    std::size_t count(const std::string& call) const;
    /// Waits until the call was made `times` times; returns false after `patience`.
    bool waitFor(const std::string& call, std::size_t times = 1,
                 std::chrono::milliseconds patience = std::chrono::seconds(30)) const;

 private:
    void record(const std::string& call);

    mutable std::mutex mutex_;
    mutable std::condition_variable called_;
    // Guarded by mutex_.
    std::vector<std::string> calls_;
    std::map<std::string, std::string> failures_;
    std::vector<std::pair<std::string, ipc::IIPCCallback*>> subscriptions_;
};

}  // namespace fakes

// The bus as an ordered record of what was asked of it, for tests; messages come in when the test delivers them.
//
// Threads: any. `deliver` calls the callback on the caller's thread: a test that wants two deliveries side by side
// uses two threads, as the bus has one a subscription.
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

    /// The message to the callbacks of every subscription that the topic matches; how many those were.
    std::size_t deliver(const std::string& topic, const std::string& content);
    /// {"param": key, "value": value} on the topic.
    std::size_t deliver(const std::string& topic, const std::string& key, const std::string& value);

    /// Every call that begins so ("connect", "publish prov-client/watchdog") throws IPCException with this reason.
    void failOn(const std::string& call, const std::string& reason);

    /// "subscribe TOPIC", "connect HOST", "publish TOPIC PAYLOAD QOS", "disconnect", in order, failed ones included.
    std::vector<std::string> calls() const;
    std::size_t count(const std::string& call) const;
    /// Waits until the call was made `times` times. False when it never was.
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

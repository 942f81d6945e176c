// Shared by the bus tests: a recording callback object, an answering service, and helpers for waiting.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Library.h"
#include "Settings.h"
#include "ipc/IIPCCallback.h"
#include "ipc/IPCException.h"

namespace bustest {

inline const std::chrono::seconds& patience = conformance::settings().patience;  // limit for events that must happen
inline const std::string statusTopic = "test-service/status";

/// Records its calls. `onMessage`, if set, runs inside messageArrived, without the lock.
class Recorder : public ipc::IIPCCallback {
 public:
    using Messages = std::vector<std::pair<std::string, std::string>>;

    void connectionLost(const std::string& cause) override { add(losses_, cause); }
    void deliveryComplete(const std::string& topic) override { add(completions_, topic); }
    void messageArrived(const std::string& topic, const std::string& content) override {
        add(messages_, std::make_pair(topic, content));
        if (onMessage) onMessage(topic, content);
    }

    bool waitForMessages(size_t count) { return waitFor(messages_, count); }
    bool waitForLosses(size_t count) { return waitFor(losses_, count); }
    bool waitForCompletions(size_t count) { return waitFor(completions_, count); }

    Messages messages() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return messages_;
    }
    std::vector<std::string> contents() {
        std::vector<std::string> all;
        for (const auto& message : messages()) all.push_back(message.second);
        return all;
    }
    std::vector<std::string> losses() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return losses_;
    }
    std::vector<std::string> completions() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return completions_;
    }

    std::function<void(const std::string&, const std::string&)> onMessage;

 private:
    template <typename List, typename Value>
    void add(List& list, Value value) {
        const std::lock_guard<std::mutex> lock(mutex_);
        list.push_back(std::move(value));
        changed_.notify_all();
    }
    template <typename List>
    bool waitFor(const List& list, size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, patience, [&] { return list.size() >= count; });
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    Messages messages_;
    std::vector<std::string> losses_;
    std::vector<std::string> completions_;
};

/// Blocks callbacks until it is opened.
class Gate {
 public:
    void open() {
        const std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    /// For a callback that must block: longer than a check waits for what must happen meanwhile.
    void passBlocked() { pass(4 * patience); }
    bool pass(std::chrono::milliseconds limit = patience) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, limit, [this] { return open_; });
    }

 private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
};

/// A bus service that answers every request with "re:" and its payload.
class EchoService {
 public:
    explicit EchoService(const std::string& address, ipc::IIPCService::Handler handler = echo)
        : service_(conformance::busLibrary().service("test-service", {})) {
        service_->start(address, statusTopic, {"test-service/ask"}, std::move(handler));
    }
    void stop() { service_->stop(); }

    static std::vector<ipc::OutgoingMessage> echo(const std::vector<ipc::ServiceRequest>& requests) {
        std::vector<ipc::OutgoingMessage> answers;
        for (const auto& request : requests) {
            answers.push_back(
                {request.responseTopic, "re:" + request.payload, request.correlationData, request.qualityOfService});
        }
        return answers;
    }

 private:
    std::unique_ptr<ipc::IIPCService> service_;
};

inline std::shared_ptr<ipc::IIPCClient> newClient(const std::string& name, bool transient = false) {
    return conformance::busLibrary().client(name, "localhost", transient);
}

inline std::string ask(ipc::IIPCClient& client, const std::string& payload,
                       std::chrono::milliseconds timeout = patience) {
    return client.request("test-service/ask", payload, statusTopic, timeout);
}

/// Polls a condition that has no notification.
template <typename Condition>
bool eventually(Condition condition) {
    const auto limit = std::chrono::steady_clock::now() + patience;
    std::mutex mutex;
    std::condition_variable never;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) return false;
        std::unique_lock<std::mutex> lock(mutex);
        never.wait_for(lock, std::chrono::milliseconds(2));
    }
    return true;
}

/// Sends requests until the service answers, for a client that connected before the service came up.
inline bool waitForService(ipc::IIPCClient& client) {
    return eventually([&client] {
        try {
            return ask(client, "there?") == "re:there?";
        } catch (const ipc::IPCException&) {
            return false;
        }
    });
}

/// A client that gets answers from the service and has been subscribed to the filter since before the first one.
inline std::shared_ptr<ipc::IIPCClient> newAsker(const std::string& address, const std::string& filter = "",
                                                 ipc::IIPCCallback* callback = nullptr) {
    const auto client = newClient("asker");
    client->watchPresence(statusTopic);
    if (callback != nullptr) client->subscribe(filter, *callback);
    client->connect(address);
    if (!waitForService(*client)) throw std::runtime_error("The service does not answer");
    return client;
}

/// Publishes each request on "test-changes" and then answers it.
inline std::vector<ipc::OutgoingMessage> changeAndEcho(const std::vector<ipc::ServiceRequest>& requests) {
    std::vector<ipc::OutgoingMessage> messages;
    for (const auto& request : requests) {
        messages.push_back({"test-changes", request.payload, "", 1});
        messages.push_back(
            {request.responseTopic, "re:" + request.payload, request.correlationData, request.qualityOfService});
    }
    return messages;
}

}  // namespace bustest

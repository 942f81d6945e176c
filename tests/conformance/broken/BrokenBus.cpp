#include "BrokenBus.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "ipc/IPCException.h"

namespace broken {

namespace {

using std::chrono::milliseconds;

std::mutex oneCallAtATime;

/// Between the client and a callback object of a check.
class Callback final : public ipc::IIPCCallback {
 public:
    explicit Callback(ipc::IIPCCallback& target) : target_(target) {}

    void connectionLost(const std::string& cause) override {
        if (!breaks("losses are reported")) target_.connectionLost(cause);
        if (breaks("losses are reported once")) target_.connectionLost(cause);
    }

    void messageArrived(const std::string& topic, const std::string& content) override {
        if (breaks("callbacks run concurrently")) {
            const std::lock_guard<std::mutex> lock(oneCallAtATime);
            target_.messageArrived(topic, content);
        } else if (breaks("messages keep their order")) {
            deliverInPairs(topic, content);
        } else {
            target_.messageArrived(topic, content);
            if (breaks("messages arrive once")) target_.messageArrived(topic, content);
        }
    }

    void deliveryComplete(const std::string& topic) override {
        if (!breaks("acknowledgements are reported")) target_.deliveryComplete(topic);
    }

 private:
    void deliverInPairs(const std::string& topic, const std::string& content) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!held_) {
            held_ = {topic, content};
            return;
        }
        target_.messageArrived(topic, content);
        const auto [earlierTopic, earlierContent] = *std::exchange(held_, std::nullopt);
        target_.messageArrived(earlierTopic, earlierContent);
    }

    ipc::IIPCCallback& target_;
    std::mutex mutex_;
    std::optional<std::pair<std::string, std::string>> held_;  // guarded by mutex_
};

class Client final : public ipc::IIPCClient {
 public:
    explicit Client(std::shared_ptr<ipc::IIPCClient> real) : real_(std::move(real)) {}
    ~Client() override { real_->disconnect(); }

    void connect(const std::string& host) override {
        try {
            real_->connect(host);
        } catch (const ipc::IPCException&) {
            if (!breaks("connect throws without a bus")) throw;
        }
    }

    void disconnect() override {
        if (!breaks("disconnect ends deliveries")) real_->disconnect();
    }

    void subscribe(const std::string& topicFilter, ipc::IIPCCallback& callback) override {
        std::string filter = topicFilter;
        if (breaks("wildcards match all levels below")) std::replace(filter.begin(), filter.end(), '#', '+');
        real_->subscribe(filter, adapterOf(callback));
    }

    void publish(const std::string& topic, const std::string& payload, int qualityOfService) override {
        if (breaks("messages are kept while the bus is away")) qualityOfService = 0;
        if (breaks("quality 0 is dropped while the bus is away")) qualityOfService = 1;
        const bool cut = breaks("payloads may have any bytes");
        real_->publish(topic, cut ? payload.substr(0, payload.find('\0')) : payload, qualityOfService);
    }

    void publishSoon(const std::string& topic, const std::string& payload) override {
        if (!breaks("messages sent soon need no other")) publish(topic, payload, 0);
    }

    void watchPresence(const std::string& statusTopic) override { real_->watchPresence(statusTopic); }

    std::string request(const std::string& topic, const std::string& payload, const std::string& statusTopic,
                        milliseconds timeout) override {
        try {
            const std::string answer = real_->request(topic, payload, statusTopic, timeout);
            const std::lock_guard<std::mutex> lock(mutex_);
            return breaks("each request gets its own answer") ? std::exchange(lastAnswer_, answer) : answer;
        } catch (const ipc::IPCServiceLostException& error) {
            if (breaks("a lost service has its exception")) throw ipc::IPCOfflineException(error.what());
            throw;
        } catch (const ipc::IPCOfflineException& error) {
            if (breaks("an offline service has its exception")) throw ipc::IPCTimeoutException(error.what());
            throw;
        } catch (const ipc::IPCInterruptedException&) {
            if (breaks("a lost connection has its exception")) throw ipc::IPCOfflineException("lost");
            if (breaks("a request is sent once")) return real_->request(topic, payload, statusTopic, timeout);
            throw;
        }
    }

    std::unique_ptr<ipc::IPCRequest> beginRequest(const std::string& topic, const std::string& payload,
                                                  const std::string& statusTopic, milliseconds timeout) override {
        if (breaks("a begun request has its time-out")) {
            return real_->beginRequest(topic, payload, statusTopic, std::chrono::seconds(5));
        }
        if (!breaks("a begun request gets its own answer")) {
            return IIPCClient::beginRequest(topic, payload, statusTopic, timeout);
        }
        const std::lock_guard<std::mutex> lock(mutex_);
        return real_->beginRequest(topic, std::exchange(lastBegun_, payload), statusTopic, timeout);
    }

    bool waitForService(const std::string& statusTopic, milliseconds limit) override {
        return real_->waitForService(statusTopic, breaks("a wait has its limit") ? milliseconds(0) : limit);
    }
    std::uint64_t responsesReceived() const override {
        return breaks("late answers are counted") ? 1 : real_->responsesReceived();
    }
    void limitRequests(milliseconds limit) override {
        if (!breaks("requests can be limited")) real_->limitRequests(limit);
    }

 private:
    /// One for each object, as connection events are reported once to each.
    Callback& adapterOf(ipc::IIPCCallback& callback) {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::unique_ptr<Callback>& adapter = callbacks_[&callback];
        if (!adapter) adapter = std::make_unique<Callback>(callback);
        return *adapter;
    }

    std::mutex mutex_;
    // Guarded by mutex_. The adapters must outlive the deliveries of the client below.
    std::map<ipc::IIPCCallback*, std::unique_ptr<Callback>> callbacks_;
    std::string lastAnswer_;
    std::string lastBegun_;
    const std::shared_ptr<ipc::IIPCClient> real_;
};

class Service final : public ipc::IIPCService {
 public:
    explicit Service(std::unique_ptr<ipc::IIPCService> real) : real_(std::move(real)) {}

    void start(const std::string& host, const std::string& statusTopic, const std::vector<std::string>& topics,
               Handler handler) override {
        const Handler adapted = [handler](const std::vector<ipc::ServiceRequest>& requests) {
            auto messages = handler(requests);
            if (breaks("a service sends in the order of its list")) std::reverse(messages.begin(), messages.end());
            return messages;
        };
        real_->start(host, breaks("a service announces itself") ? "nowhere/status" : statusTopic, topics, adapted);
    }

    void stop() override {
        if (!breaks("a service publishes offline when it stops")) real_->stop();
    }

 private:
    const std::unique_ptr<ipc::IIPCService> real_;
};

}  // namespace

std::shared_ptr<ipc::IIPCClient> createClient(const std::string& name, const std::string& host, bool transient) {
    const bool shared = breaks("transient clients may share a name") ? false : transient;
    return std::make_shared<Client>(ipc::IPCFactory::createInstanceShared(name, host, shared));
}

std::unique_ptr<ipc::IIPCService> createService(const std::string& name, ipc::ServiceEvents events) {
    if (breaks("a service reports that it is alive")) events.alive = nullptr;
    return std::make_unique<Service>(ipc::IPCFactory::createService(name, std::move(events)));
}

}  // namespace broken

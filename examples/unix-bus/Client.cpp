// The client of the Unix bus. Lock order: the client's mutex, then that of the link or of the pending requests.
#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <utility>
#include <vector>

#include "Delivery.h"
#include "Link.h"
#include "Pending.h"
#include "Topics.h"
#include "ipc/IPCException.h"
#include "ipc/IPCFactory.h"

namespace {

using ipc::IIPCCallback;
using ipc::IPCException;
using unixbus::Delivery;
using unixbus::Frame;

constexpr std::chrono::seconds answerLimit{5};
constexpr std::size_t maxMessages = 10000;
constexpr std::size_t maxPayload = std::size_t{16} * 1024 * 1024;

std::string randomText() {
    std::random_device source;
    return std::to_string(source()) + std::to_string(source());
}

class Client final : public ipc::IIPCClient, private unixbus::LinkListener {
 public:
    Client(const std::string& name, std::string host, bool transient)
        : host_(std::move(host)),
          replyTopic_(name + "/reply/" + randomText()),
          link_(transient ? name + "-" + randomText() : name, "", *this) {}
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() override {
        disconnect();
        pending_.close();
        link_.close();
    }

    void connect(const std::string& host) override {
        std::unique_lock<std::mutex> lock(mutex_);
        if (state_ != State::fresh) throw IPCException("The bus client cannot connect twice");
        state_ = State::connected;
        pending_.connecting();
        lock.unlock();
        const bool open = link_.open(host.empty() ? host_ : host, false);
        lock.lock();
        if (open && changed_.wait_for(lock, answerLimit, [this] { return ready_; })) return;
        lock.unlock();
        link_.close();
        disconnect();
        pending_.connectFailed();
        throw IPCException(open ? "The bus does not answer" : "There is no bus at " + host);
    }

    void disconnect() override {
        Deliveries ended;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            ended = deliveries();
            for (const auto& each : ended) {
                if (each->isOwnThread()) throw IPCException("A callback cannot disconnect its own bus client");
            }
            state_ = State::disconnected;
            for (const auto& [number, route] : routes_) link_.send({"unsubscribe", number});
            routes_.clear();
            events_.clear();
            changed_.notify_all();
        }
        // Another call may be ending the same ones.
        const std::lock_guard<std::mutex> alone(ending_);
        for (const auto& each : ended) each->stop();
    }

    void subscribe(const std::string& topicFilter, IIPCCallback& callback) override {
        if (!unixbus::isFilter(topicFilter)) throw IPCException("Invalid filter: " + topicFilter);
        std::unique_lock<std::mutex> lock(mutex_);
        if (state_ == State::disconnected) throw IPCException("The bus client is disconnected");
        const std::string number = std::to_string(next_++);
        routes_[number] = {topicFilter, std::make_shared<Delivery>(callback), false};
        if (!eventsOf(callback)) events_.push_back(std::make_shared<Delivery>(callback));
        if (state_ == State::fresh) return;
        link_.send({"subscribe", number, topicFilter});
        const auto isDone = [&] { return routes_.count(number) == 0 || routes_[number].acknowledged; };
        if (changed_.wait_for(lock, answerLimit, isDone) && routes_.count(number) > 0) return;
        const Deliveries unused = removeRoute(number, callback);
        lock.unlock();
        for (const auto& each : unused) each->stop();
        throw IPCException("The bus has not accepted the subscription to " + topicFilter);
    }

    void publish(const std::string& topic, const std::string& payload, int qualityOfService) override {
        if (!unixbus::isTopic(topic)) throw IPCException("Invalid topic: " + topic);
        if (payload.size() > maxPayload) throw IPCException("The message is too large");
        const std::lock_guard<std::mutex> lock(mutex_);
        if (state_ != State::connected) throw IPCException("The bus client is not connected");
        const std::string number = std::to_string(next_++);
        const Frame frame{"publish", number, qualityOfService > 0 ? "1" : "0", "0", topic, payload, "", ""};
        if (qualityOfService > 0) {
            if (outbox_.size() >= maxMessages) throw IPCException("Too many messages wait for the bus");
            outbox_.push_back({number, frame});
        }
        link_.send(frame);
    }

    void watchPresence(const std::string& statusTopic) override {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (pending_.watch(statusTopic)) watched_.push_back(statusTopic);
    }

    std::string request(const std::string& topic, const std::string& payload, const std::string& statusTopic,
                        std::chrono::milliseconds timeout) override {
        return pending_.ask(statusTopic, timeout, [&](const std::string& correlation) {
            link_.send({"publish", "0", "0", "0", topic, payload, replyTopic_, correlation});
        });
    }

    bool waitForService(const std::string& statusTopic, std::chrono::milliseconds limit) override {
        return pending_.waitForService(statusTopic, limit);
    }
    std::uint64_t responsesReceived() const override { return pending_.answers(); }
    void limitRequests(std::chrono::milliseconds limit) override { pending_.limit(limit); }

 private:
    enum class State { fresh, connected, disconnected };
    using Deliveries = std::vector<std::shared_ptr<Delivery>>;
    struct Route {
        std::string filter;
        std::shared_ptr<Delivery> delivery;
        bool acknowledged = false;
    };
    struct Kept {
        std::string number;
        Frame frame;
    };

    // ---- with mutex_ held ----

    Deliveries deliveries() const {
        Deliveries all = events_;
        for (const auto& [number, route] : routes_) all.push_back(route.delivery);
        return all;
    }

    std::shared_ptr<Delivery> eventsOf(const IIPCCallback& callback) const {
        for (const auto& each : events_) {
            if (&each->target() == &callback) return each;
        }
        return nullptr;
    }

    /// Returns the deliveries that end with it.
    Deliveries removeRoute(const std::string& number, const IIPCCallback& callback) {
        Deliveries unused;
        const auto found = routes_.find(number);
        if (found != routes_.end()) {
            unused.push_back(found->second.delivery);
            routes_.erase(found);
            link_.send({"unsubscribe", number});
        }
        for (const auto& [other, route] : routes_) {
            if (&route.delivery->target() == &callback) return unused;
        }
        if (const auto events = eventsOf(callback)) {
            unused.push_back(events);
            events_.erase(std::find(events_.begin(), events_.end(), events));
        }
        return unused;
    }

    // ---- on the link's thread ----

    void linkUp() override {
        const std::lock_guard<std::mutex> lock(mutex_);
        link_.begin();
        link_.send({"subscribe", "reply", replyTopic_});
        for (std::size_t i = 0; i < watched_.size(); ++i) {
            link_.send({"subscribe", "presence" + std::to_string(i), watched_[i]});
        }
        for (auto& [number, route] : routes_) link_.send({"subscribe", number, route.filter});
        for (const Kept& each : outbox_) link_.send(each.frame);
        link_.send({"ping", "ready"});
    }

    void linkDown() override {
        pending_.lost();
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!std::exchange(ready_, false)) return;
        for (const auto& each : events_) {
            each->add([](IIPCCallback& target) { target.connectionLost("The bus has closed the connection"); });
        }
    }

    void frameArrived(Frame& frame) override {
        if (frame.at(0) == "ack") {
            acknowledged(frame.at(1));
        } else if (frame.at(0) == "message") {
            messageArrived(frame);
        }
    }

    void acknowledged(const std::string& number) {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto route = routes_.find(number);
        if (route != routes_.end()) route->second.acknowledged = true;
        if (number == "ready") {
            ready_ = true;
            pending_.connected();
        }
        // Messages are acknowledged in the order in which they were sent.
        if (!outbox_.empty() && outbox_.front().number == number) {
            const std::string topic = outbox_.front().frame[4];
            outbox_.pop_front();
            for (const auto& each : events_) {
                each->add([topic](IIPCCallback& target) { target.deliveryComplete(topic); });
            }
        }
        changed_.notify_all();
    }

    void messageArrived(const Frame& frame) {
        const std::string& subscription = frame.at(1);
        if (subscription == "reply") return pending_.answerArrived(frame.at(6), frame.at(4));
        if (subscription.rfind("presence", 0) == 0) return pending_.presenceArrived(frame.at(3), frame.at(4));
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = routes_.find(subscription);
        if (found == routes_.end()) return;
        found->second.delivery->add([topic = frame.at(3), content = frame.at(4)](IIPCCallback& target) {
            target.messageArrived(topic, content);
        });
    }

    const std::string host_;
    const std::string replyTopic_;
    std::mutex ending_;

    std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    State state_ = State::fresh;
    bool ready_ = false;  // the bus has everything that was sent when it accepted the connection
    std::map<std::string, Route> routes_;
    Deliveries events_;  // connection events, one for each callback object
    std::vector<std::string> watched_;
    std::deque<Kept> outbox_;
    std::uint64_t next_ = 1;

    unixbus::Pending pending_;
    unixbus::Link link_;  // last: its thread uses everything above
};

}  // namespace

std::shared_ptr<ipc::IIPCClient> ipc::IPCFactory::createInstanceShared(const std::string& clientName,
                                                                       const std::string& host, bool transient) {
    return std::make_shared<Client>(clientName, host, transient);
}

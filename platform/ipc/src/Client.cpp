// The bus client over one Connection: subscriptions and deliveries to their callbacks. Requests are in Requests.
//
// Threads: whichever thread reads hands messages to deliveries and responses to requests, and runs no callback.
// Lock order: Connection's mutex before mutex_, so never call the connection with mutex_ held.
#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <string_view>
#include <utility>
#include <vector>

#include "Connection.h"
#include "Delivery.h"
#include "Requests.h"
#include "common/ThreadSafety.h"
#include "ipc/IPCException.h"
#include "ipc/IPCFactory.h"

namespace ipc {

namespace {

/// Eight letters and digits that distinguish clients; not for secrets. Short, as each request carries them twice to a
/// reader that takes a longer packet in one more read.
std::string randomText() {
    constexpr std::string_view digits = "0123456789abcdefghijklmnopqrstuv";
    std::random_device source;
    std::uniform_int_distribution<std::size_t> any(0, digits.size() - 1);
    std::string text(8, '0');
    for (char& digit : text) digit = digits[any(source)];
    return text;
}

/// A request of a Client, with what it refers to.
class SentRequest final : public IPCRequest {
 public:
    SentRequest(Connection& connection, Requests& requests, const std::string& replyTopic, std::string topic,
                std::string payload, std::string statusTopic, std::chrono::milliseconds timeout)
        : topic_(std::move(topic)),
          payload_(std::move(payload)),
          statusTopic_(std::move(statusTopic)),
          send_([this, &connection, &replyTopic](const std::string& correlationData) {
              return connection.publish({topic_, payload_, 0, replyTopic, correlationData}, Departure::withNext);
          }),
          request_(requests, statusTopic_, timeout, send_) {}

    std::string response() override { return request_.response(); }

 private:
    const std::string topic_;
    const std::string payload_;
    const std::string statusTopic_;
    const Requests::Send send_;
    Requests::Request request_;
};

class Client final : public IIPCClient, private ConnectionListener, private ResponseReader {
 public:
    Client(const std::string& name, std::string host, bool transient)
        : host_(std::move(host)),
          replyTopic_(name + "/reply/" + randomText()),
          connection_({transient ? name + "-" + randomText() : name, name, /* keepSession */ !transient, "", false},
                      *this) {}

    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    ~Client() override {
        disconnect();
        requests_.close();
        connection_.close();
    }

    void connect(const std::string& host) override {
        {
            const common::LockGuard lock(mutex_);
            if (state_ != State::fresh) throw IPCException("The bus client cannot connect twice");
            state_ = State::connecting;
        }
        requests_.connecting();
        try {
            // Quality 0: the broker must not queue responses whose request has ended meanwhile.
            connection_.subscribe(replyTopic_, 0, MQTT_SUB_OPT_SEND_RETAIN_NEVER);
            connection_.open(host.empty() ? host_ : host, false);
            connection_.waitUntilReady();
        } catch (...) {
            connection_.close();
            disconnect();
            requests_.connectFailed();
            throw;
        }
        const common::LockGuard lock(mutex_);
        if (state_ == State::connecting) state_ = State::connected;
    }

    void disconnect() override {
        {
            const common::LockGuard lock(mutex_);
            for (const auto& delivery : allDeliveries()) {
                if (delivery->isOwnThread()) throw IPCException("A callback cannot disconnect its own bus client");
            }
        }
        const common::LockGuard alone(ending_);
        Deliveries ended;
        std::vector<Route> routes;
        {
            const common::LockGuard lock(mutex_);
            state_ = State::disconnected;
            ended = allDeliveries();
            routes.swap(routes_);
            events_.clear();
        }
        connection_.dropSession();
        for (const Route& route : routes) connection_.unsubscribe(route.subscription);
        for (const auto& delivery : ended) delivery->requestStop();
        for (const auto& delivery : ended) delivery->stop();
    }

    void subscribe(const std::string& topicFilter, IIPCCallback& callback) override {
        const auto delivery = std::make_shared<Delivery>(topicFilter, callback);
        const std::shared_ptr<Delivery> events = eventsFor(callback);
        State state = State::fresh;
        const auto registered = [&](std::uint32_t subscription) {
            state = addRoute({subscription, topicFilter, delivery}, events);
        };
        const std::uint32_t subscription =
            connection_.subscribe(topicFilter, 1, MQTT_SUB_OPT_SEND_RETAIN_NEW, registered);
        if (state == State::fresh) return;
        try {
            if (state == State::disconnected) throw IPCException("The bus client is disconnected");
            connection_.waitForSubscription(subscription);
        } catch (...) {
            const std::shared_ptr<Delivery> unused = dropRoute(delivery);
            connection_.unsubscribe(subscription);
            delivery->stop();
            if (unused) unused->stop();
            throw;
        }
    }

    void publish(const std::string& topic, const std::string& payload, int qualityOfService) override {
        publish({topic, payload, qualityOfService, {}, {}}, Departure::atOnce);
    }
    void publishSoon(const std::string& topic, const std::string& payload) override {
        publish({topic, payload, 0, {}, {}}, Departure::withNext);
    }

    void watchPresence(const std::string& statusTopic) override {
        if (!requests_.watch(statusTopic)) return;
        // Quality 0: after a connection loss only the retained presence counts, not those published meanwhile.
        connection_.subscribe(statusTopic, 0, MQTT_SUB_OPT_SEND_RETAIN_ALWAYS);
    }

    std::string request(const std::string& topic, const std::string& payload, const std::string& statusTopic,
                        std::chrono::milliseconds timeout) override {
        const auto send = [&](const std::string& correlationData) {
            return connection_.publish({topic, payload, 0, replyTopic_, correlationData}, Departure::atOnce);
        };
        return requests_.ask(statusTopic, timeout, std::cref(send));
    }

    std::unique_ptr<IPCRequest> beginRequest(const std::string& topic, const std::string& payload,
                                             const std::string& statusTopic,
                                             std::chrono::milliseconds timeout) override {
        return std::make_unique<SentRequest>(connection_, requests_, replyTopic_, topic, payload, statusTopic, timeout);
    }

    bool waitForService(const std::string& statusTopic, std::chrono::milliseconds limit) override {
        return requests_.waitForService(statusTopic, limit);
    }
    std::uint64_t responsesReceived() const override { return requests_.responses(); }
    void limitRequests(std::chrono::milliseconds limit) override { requests_.limit(limit); }

 private:
    enum class State { fresh, connecting, connected, disconnected };

    struct Route {
        std::uint32_t subscription;
        std::string filter;
        std::shared_ptr<Delivery> delivery;
    };
    using Deliveries = std::vector<std::shared_ptr<Delivery>>;

    void publish(const Message& message, Departure departure) EXCLUDES(mutex_) {
        {
            const common::LockGuard lock(mutex_);
            if (state_ == State::fresh) throw IPCException("The bus client is not connected");
            if (state_ == State::disconnected) throw IPCException("The bus client is disconnected");
        }
        // Half of what may wait for the broker is left for requests: these must not fail because of messages that may
        // be lost.
        if (message.qualityOfService == 0 && connection_.congestion() == Congestion::unsent) return;
        connection_.publish(message, departure);
    }

    Deliveries allDeliveries() const REQUIRES(mutex_) {
        Deliveries all = events_;
        for (const Route& route : routes_) all.push_back(route.delivery);
        return all;
    }

    /// The callback object's queue for connection events; a new one if it has none.
    std::shared_ptr<Delivery> eventsFor(IIPCCallback& callback) EXCLUDES(mutex_) {
        {
            const common::LockGuard lock(mutex_);
            if (state_ == State::disconnected) throw IPCException("The bus client is disconnected");
            if (auto events = eventsOf(callback)) return events;
        }
        return std::make_shared<Delivery>("connection events", callback);
    }

    std::shared_ptr<Delivery> eventsOf(const IIPCCallback& callback) const REQUIRES(mutex_) {
        for (const auto& events : events_) {
            if (&events->callback() == &callback) return events;
        }
        return nullptr;
    }

    /// Returns the state at that moment; if it is `disconnected`, the route was not added.
    State addRoute(const Route& route, const std::shared_ptr<Delivery>& events) EXCLUDES(mutex_) {
        const common::LockGuard lock(mutex_);
        if (state_ == State::disconnected) return state_;
        routes_.push_back(route);
        if (!eventsOf(events->callback())) events_.push_back(events);
        return state_;
    }

    /// Returns the callback object's queue of connection events if this was its last route: the object may be destroyed
    /// before the next loss.
    std::shared_ptr<Delivery> dropRoute(const std::shared_ptr<Delivery>& delivery) EXCLUDES(mutex_) {
        const common::LockGuard lock(mutex_);
        const auto isDropped = [&](const Route& each) { return each.delivery == delivery; };
        routes_.erase(std::remove_if(routes_.begin(), routes_.end(), isDropped), routes_.end());
        const auto serves = [&](const Route& each) { return &each.delivery->callback() == &delivery->callback(); };
        if (std::any_of(routes_.begin(), routes_.end(), serves)) return nullptr;
        std::shared_ptr<Delivery> events = eventsOf(delivery->callback());
        events_.erase(std::remove(events_.begin(), events_.end(), events), events_.end());
        return events;
    }

    // ---- on the thread that waits for a response ----

    bool read(std::chrono::steady_clock::time_point until, const std::function<Awaited()>& awaited) override {
        return connection_.serve(until, awaited);
    }
    void interrupt() override { connection_.interruptServing(); }

    // ---- on the network thread, or on one that waits for a response ----

    void connectionReady() override { requests_.connected(); }

    void connectionLost(const std::string& cause) override {
        requests_.connectionLost();
        const common::LockGuard lock(mutex_);
        for (const auto& events : events_) events->connectionLost(cause);
    }

    void messageAcknowledged(const std::string& topic) override {
        const common::LockGuard lock(mutex_);
        for (const auto& events : events_) events->deliveryComplete(topic);
    }

    bool messageArrived(const Incoming& message) override {
        const bool isResponse = message.topic == replyTopic_;
        if (isResponse) {
            requests_.responseArrived(message.correlationData(), message.payload);
        } else {
            requests_.presenceArrived(message.topic, message.payload);
        }
        // The broker sends one copy for each matching subscription and names those of routes, so filters may overlap.
        const std::vector<std::uint32_t> named = message.subscriptions();
        const bool isForRequests = named.empty() && (isResponse || requests_.isWatched(message.topic));
        if (isForRequests && message.canNameSubscriptions) return true;
        const common::LockGuard lock(mutex_);
        for (const Route& route : routes_) {
            const bool matches = named.empty()
                                     ? topicMatches(route.filter, message.topic)
                                     : std::find(named.begin(), named.end(), route.subscription) != named.end();
            if (matches) route.delivery->messageArrived(message.topic, message.payload);
        }
        return true;
    }

    const std::string host_;
    const std::string replyTopic_;

    common::Mutex ending_;  // one disconnect at a time; taken before mutex_

    common::Mutex mutex_;
    State state_ GUARDED_BY(mutex_) = State::fresh;
    std::vector<Route> routes_ GUARDED_BY(mutex_);
    Deliveries events_ GUARDED_BY(mutex_);  // connection events, one queue for each callback object

    Requests requests_{this};  // has its own mutex

    Connection connection_;  // last: its thread calls into everything above
};

}  // namespace

std::shared_ptr<IIPCClient> IPCFactory::createInstanceShared(const std::string& clientName, const std::string& host,
                                                             bool transient) {
    return std::make_shared<Client>(clientName, host, transient);
}

}  // namespace ipc

#include "Client.h"

#include <algorithm>
#include <utility>

#include "Random.h"
#include "ipc/IPCException.h"

namespace ipc {

namespace {

Connection::Options connectionOptions(const std::string& name, bool transient) {
    Connection::Options options;
    options.clientId = transient ? name + "-" + randomText() : name;
    options.userName = name;
    options.keepSession = !transient;
    return options;
}

}  // namespace

Client::Client(const std::string& name, std::string host, bool transient)
    : host_(std::move(host)),
      replyTopic_(name + "/reply/" + randomText()),
      connection_(connectionOptions(name, transient), *this) {}

Client::~Client() {
    disconnect();
    requests_.close();
    connection_.close();
}

void Client::connect(const std::string& host) {
    {
        const common::LockGuard lock(mutex_);
        if (state_ != State::fresh) throw IPCException("The bus client cannot connect twice");
        state_ = State::connecting;
    }
    requests_.connecting();
    try {
        // Quality 0: the broker must not queue answers whose request has ended meanwhile.
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

void Client::disconnect() {
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

Client::Deliveries Client::allDeliveries() const {
    Deliveries all;
    for (const Route& route : routes_) all.push_back(route.delivery);
    all.insert(all.end(), events_.begin(), events_.end());
    return all;
}

// ---- subscriptions ----

void Client::subscribe(const std::string& topicFilter, IIPCCallback& callback) {
    const auto delivery = std::make_shared<Delivery>(topicFilter, callback);
    const std::shared_ptr<Delivery> events = eventsFor(callback);
    State state = State::fresh;
    const auto registered = [&](std::uint32_t subscription) {
        state = addRoute({subscription, topicFilter, delivery}, events);
    };
    const std::uint32_t subscription = connection_.subscribe(topicFilter, 1, MQTT_SUB_OPT_SEND_RETAIN_NEW, registered);
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

/// The callback object's queue for connection events; a new one if it has none.
std::shared_ptr<Delivery> Client::eventsFor(IIPCCallback& callback) {
    {
        const common::LockGuard lock(mutex_);
        if (state_ == State::disconnected) throw IPCException("The bus client is disconnected");
        if (auto events = eventsOf(callback)) return events;
    }
    return std::make_shared<Delivery>("connection events", callback);
}

std::shared_ptr<Delivery> Client::eventsOf(const IIPCCallback& callback) const {
    for (const auto& events : events_) {
        if (&events->callback() == &callback) return events;
    }
    return nullptr;
}

/// Returns the state at that moment; if it is `disconnected`, the route was not added.
Client::State Client::addRoute(const Route& route, const std::shared_ptr<Delivery>& events) {
    const common::LockGuard lock(mutex_);
    if (state_ == State::disconnected) return state_;
    routes_.push_back(route);
    if (!eventsOf(events->callback())) events_.push_back(events);
    return state_;
}

/// Returns the callback object's queue of connection events if this was its last route: the object may be destroyed
/// before the next loss.
std::shared_ptr<Delivery> Client::dropRoute(const std::shared_ptr<Delivery>& delivery) {
    const common::LockGuard lock(mutex_);
    const auto serves = [&](const Route& each) { return &each.delivery->callback() == &delivery->callback(); };
    routes_.erase(
        std::remove_if(routes_.begin(), routes_.end(), [&](const Route& each) { return each.delivery == delivery; }),
        routes_.end());
    if (std::any_of(routes_.begin(), routes_.end(), serves)) return nullptr;
    std::shared_ptr<Delivery> events = eventsOf(delivery->callback());
    events_.erase(std::remove(events_.begin(), events_.end(), events), events_.end());
    return events;
}

// ---- messages and requests ----

void Client::publish(const std::string& topic, const std::string& payload, int qualityOfService) {
    {
        const common::LockGuard lock(mutex_);
        if (state_ == State::fresh) throw IPCException("The bus client is not connected");
        if (state_ == State::disconnected) throw IPCException("The bus client is disconnected");
    }
    connection_.publish({topic, payload, qualityOfService, {}, {}});
}

void Client::watchPresence(const std::string& statusTopic) {
    if (!requests_.watch(statusTopic)) return;
    // Quality 0: after a connection loss only the retained presence counts, not those published meanwhile.
    connection_.subscribe(statusTopic, 0, MQTT_SUB_OPT_SEND_RETAIN_ALWAYS);
}

std::string Client::request(const std::string& topic, const std::string& payload, const std::string& statusTopic,
                            std::chrono::milliseconds timeout) {
    return requests_.ask(statusTopic, timeout, [&](std::string correlationData) {
        return connection_.publish({topic, payload, 0, replyTopic_, std::move(correlationData)});
    });
}

bool Client::waitForService(const std::string& statusTopic, std::chrono::milliseconds patience) {
    return requests_.waitForService(statusTopic, patience);
}

void Client::limitRequests(std::chrono::milliseconds limit) { requests_.limit(limit); }

// ---- the network thread ----

void Client::connectionReady() { requests_.connected(); }

void Client::connectionLost(const std::string& cause) {
    requests_.connectionLost();
    const common::LockGuard lock(mutex_);
    for (const auto& events : events_) events->connectionLost(cause);
}

void Client::messageAcknowledged(const std::string& topic) {
    const common::LockGuard lock(mutex_);
    for (const auto& events : events_) events->deliveryComplete(topic);
}

bool Client::messageArrived(const Incoming& message) {
    if (message.topic == replyTopic_) requests_.answerArrived(message.correlationData(), message.payload);
    requests_.presenceArrived(message.topic, message.payload);
    const common::LockGuard lock(mutex_);
    // The broker sends one copy for each matching subscription and names it, so filters may overlap.
    const bool named = message.forEachSubscription([&](std::uint32_t subscription) {
        mutex_.assertHeld();
        for (const Route& route : routes_) {
            if (route.subscription == subscription) route.delivery->messageArrived(message.topic, message.payload);
        }
    });
    if (named) return true;
    for (const Route& route : routes_) {
        if (topicMatches(route.filter, message.topic)) {
            route.delivery->messageArrived(message.topic, message.payload);
        }
    }
    return true;
}

}  // namespace ipc

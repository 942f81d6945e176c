#include "Client.h"

#include <algorithm>
#include <cstring>
#include <random>
#include <utility>

#include "ipc/IPCException.h"

namespace ipc {

namespace {

// How long a request waits for a lost connection, and for the first word about a service.
constexpr std::chrono::milliseconds reconnectWait{2000};
constexpr std::chrono::milliseconds presenceWait{1000};

std::uint64_t random64() {
    std::random_device source;
    return (static_cast<std::uint64_t>(source()) << 32U) | source();
}

std::string randomText() {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (std::uint64_t bits = random64(); text.size() < 16; bits >>= 4U) text += digits[bits & 15U];
    return text;
}

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
      firstRequest_(random64()),
      since_(Clock::now()),
      nextRequest_(firstRequest_),
      connection_(connectionOptions(name, transient), *this) {}

Client::~Client() {
    disconnect();
    {
        std::unique_lock<std::mutex> lock(mutex_);
        destroying_ = true;
        wakeAll();
        left_.wait(lock, [this] { return pending_.empty() && serviceWaits_ == 0; });
    }
    connection_.close();
}

void Client::connect(const std::string& host) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (state_ != State::fresh) throw IPCException("The bus client connects once only");
        state_ = State::connecting;
        since_ = Clock::now();
    }
    try {
        // Answers are not retained, and one that nobody waits for any more is not to be queued either.
        connection_.subscribe(replyTopic_, 0, MQTT_SUB_OPT_SEND_RETAIN_NEVER);
        connection_.open(host.empty() ? host_ : host, false);
        connection_.waitUntilReady();
    } catch (...) {
        connection_.close();
        disconnect();
        const std::lock_guard<std::mutex> lock(mutex_);
        since_ = Clock::now() - reconnectWait;  // requests need not wait for a connection that never was
        throw;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == State::connecting) state_ = State::connected;
}

void Client::disconnect() {
    std::vector<std::shared_ptr<Delivery>> ended;
    std::vector<std::uint32_t> subscriptions;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const Route& route : routes_) ended.push_back(route.delivery);
        ended.insert(ended.end(), events_.begin(), events_.end());
        for (const auto& delivery : ended) {
            if (delivery->isOwnThread()) throw IPCException("A callback cannot disconnect its own bus client");
        }
    }
    const std::lock_guard<std::mutex> alone(ending_);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        state_ = State::disconnected;
        ended.clear();
        for (const Route& route : routes_) {
            subscriptions.push_back(route.subscription);
            ended.push_back(route.delivery);
        }
        ended.insert(ended.end(), events_.begin(), events_.end());
        routes_.clear();
        events_.clear();
    }
    connection_.dropSession();
    for (const std::uint32_t subscription : subscriptions) connection_.unsubscribe(subscription);
    for (const auto& delivery : ended) delivery->askToStop();
    for (const auto& delivery : ended) delivery->stop();
}

void Client::subscribe(const std::string& topicFilter, IIPCCallback& callback) {
    const auto delivery = std::make_shared<Delivery>(topicFilter, callback);
    std::shared_ptr<Delivery> events;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (state_ == State::disconnected) throw IPCException("The bus client is disconnected");
        events = eventsOf(callback);
    }
    if (!events) events = std::make_shared<Delivery>("connection events", callback);
    State state = State::fresh;
    const auto registered = [&](std::uint32_t subscription) {
        const std::lock_guard<std::mutex> lock(mutex_);
        state = state_;
        if (state == State::disconnected) return;
        routes_.push_back({subscription, topicFilter, delivery});
        if (!eventsOf(callback)) events_.push_back(events);
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

std::shared_ptr<Delivery> Client::eventsOf(const IIPCCallback& callback) const {
    for (const auto& events : events_) {
        if (&events->callback() == &callback) return events;
    }
    return nullptr;
}

/// Returns the queue of connection events that nobody needs any more: a callback object that serves no subscription
/// may be gone by the next loss.
std::shared_ptr<Delivery> Client::dropRoute(const std::shared_ptr<Delivery>& delivery) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto serves = [&](const Route& each) { return &each.delivery->callback() == &delivery->callback(); };
    routes_.erase(
        std::remove_if(routes_.begin(), routes_.end(), [&](const Route& each) { return each.delivery == delivery; }),
        routes_.end());
    if (std::any_of(routes_.begin(), routes_.end(), serves)) return nullptr;
    std::shared_ptr<Delivery> events = eventsOf(delivery->callback());
    events_.erase(std::remove(events_.begin(), events_.end(), events), events_.end());
    return events;
}

void Client::publish(const std::string& topic, const std::string& payload, int qualityOfService) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (state_ == State::fresh) throw IPCException("The bus client is not connected");
        if (state_ == State::disconnected) throw IPCException("The bus client is disconnected");
    }
    connection_.publish({topic, payload, qualityOfService, {}, {}});
}

void Client::watchPresence(const std::string& statusTopic) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!services_.emplace(statusTopic, WatchedService()).second) return;
    }
    // Quality 0: what the service said during a cut is out of date, the retained word counts.
    connection_.subscribe(statusTopic, 0, MQTT_SUB_OPT_SEND_RETAIN_ALWAYS);
}

std::string Client::request(const std::string& topic, const std::string& payload, const std::string& statusTopic,
                            std::chrono::milliseconds timeout) {
    const auto begun = Clock::now();
    Pending pending(statusTopic);
    std::unique_lock<std::mutex> lock(mutex_);
    if (destroying_) throw IPCOfflineException("The bus client is closed");
    const std::uint64_t number = nextRequest_++;
    pending_.emplace(number, &pending);
    // Whatever happens, the network thread must not find this frame's `pending` later.
    struct Leave {
        Client& client;
        std::uint64_t number;
        ~Leave() {
            client.pending_.erase(number);
            if (client.destroying_) client.left_.notify_all();
        }
    } const leave{*this, number};

    for (;;) {
        const Clock::time_point deadline = limited(begun + timeout, begun);
        Clock::time_point until = deadline;
        switch (nextStep(pending, deadline, until)) {
            case Step::finish:
                return std::move(pending.answer);
            case Step::wait:
                pending.changed.wait_until(lock, until);
                break;
            case Step::send: {
                pending.sent = true;
                lock.unlock();
                bool sent = false;
                try {
                    std::string correlation(sizeof number, '\0');
                    std::memcpy(correlation.data(), &number, sizeof number);
                    sent = connection_.publish({topic, payload, 0, replyTopic_, std::move(correlation)});
                } catch (...) {
                    lock.lock();
                    throw;
                }
                lock.lock();
                // The connection went just now: wait for the next one, unless that was reported meanwhile.
                if (!sent) {
                    pending.sent = false;
                    pending.lost = Lost::nothing;
                    if (ready_) pending.changed.wait_until(lock, std::min(deadline, Clock::now() + presenceWait));
                }
                break;
            }
        }
    }
}

/// What the caller of a request does next; throws when the answer can no longer come.
Client::Step Client::nextStep(const Pending& pending, Clock::time_point deadline, Clock::time_point& until) const {
    const std::string& statusTopic = pending.statusTopic;
    if (pending.answered) return Step::finish;
    if (destroying_) throw IPCOfflineException("The bus client is closed");
    if (pending.lost == Lost::connection) {
        throw IPCInterruptedException("The connection broke before the answer came");
    }
    if (pending.lost == Lost::service) {
        throw IPCServiceLostException("The service of " + statusTopic + " went offline before its answer came");
    }
    const auto service = services_.find(statusTopic);
    if (service == services_.end()) throw IPCException("The presence on " + statusTopic + " is not watched");
    const Presence presence = service->second.presence;
    const auto now = Clock::now();
    if (!ready_) {
        if (state_ == State::fresh) throw IPCOfflineException("The bus client is not connected");
        if (now >= since_ + reconnectWait) throw IPCOfflineException("There is no connection to the broker");
        until = std::min(deadline, since_ + reconnectWait);
    } else if (presence == Presence::offline) {
        throw IPCOfflineException("The service of " + statusTopic + " is offline");
    } else if (presence == Presence::unknown) {
        if (now >= since_ + presenceWait) throw IPCOfflineException("There is no word from " + statusTopic);
        until = std::min(deadline, since_ + presenceWait);
    }
    if (now >= deadline) throw IPCTimeoutException("No answer in time");
    const bool reachable = ready_ && presence == Presence::online;
    return reachable && !pending.sent ? Step::send : Step::wait;
}

bool Client::waitForService(const std::string& statusTopic, std::chrono::milliseconds patience) {
    std::unique_lock<std::mutex> lock(mutex_);
    ++serviceWaits_;
    struct Leave {
        Client& client;
        ~Leave() {
            --client.serviceWaits_;
            if (client.destroying_) client.left_.notify_all();
        }
    } const leave{*this};

    for (;;) {
        const auto service = services_.find(statusTopic);
        if (destroying_ || service == services_.end()) return false;
        if (ready_ && service->second.presence == Presence::online) return true;
        if (limit_ || !service->second.lastOnline) return false;
        const auto until = *service->second.lastOnline + patience;
        if (Clock::now() >= until) return false;
        presenceChanged_.wait_until(lock, until);
    }
}

void Client::limitRequests(std::chrono::milliseconds limit) {
    const std::lock_guard<std::mutex> lock(mutex_);
    limit_ = limit;
    limitedSince_ = Clock::now();
    wakeAll();
}

Client::Clock::time_point Client::limited(Clock::time_point deadline, Clock::time_point begun) const {
    return limit_ ? std::min(deadline, std::max(begun, limitedSince_) + *limit_) : deadline;
}

// ---- the network thread ----

void Client::connectionReady() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ready_ = true;
    since_ = Clock::now();
    wakeAll();
}

void Client::connectionLost(const std::string& cause) {
    const std::lock_guard<std::mutex> lock(mutex_);
    // A connection that breaks before it is of use does not lengthen anyone's patience.
    if (ready_) since_ = Clock::now();
    ready_ = false;
    for (const auto& [number, pending] : pending_) {
        if (pending->sent) pending->lost = Lost::connection;
    }
    for (auto& [topic, service] : services_) setPresence(topic, service, Presence::unknown);
    wakeAll();
    for (const auto& events : events_) events->connectionLost(cause);
}

void Client::messageAcknowledged(const std::string& topic) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& events : events_) events->deliveryComplete(topic);
}

bool Client::messageArrived(const Incoming& message) {
    if (message.topic == replyTopic_) completeRequest(message);
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto service = services_.find(message.topic);
    // Any other word, an emptied topic among them, says nothing about the service.
    const bool online = message.payload == "online";
    if (service != services_.end() && (online || message.payload == "offline")) {
        setPresence(service->first, service->second, online ? Presence::online : Presence::offline);
        wakeAll();
    }
    // The broker sends a copy for each subscription that matches, and names it: so filters may overlap.
    const bool named = message.forEachSubscription([&](std::uint32_t subscription) {
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

// A request in flight is marked here, not where its caller looks: "online" may follow before the caller wakes.
void Client::setPresence(const std::string& statusTopic, WatchedService& service, Presence presence) {
    if (service.presence == Presence::online && presence != Presence::online) service.lastOnline = Clock::now();
    service.presence = presence;
    if (presence != Presence::offline) return;
    for (const auto& [number, pending] : pending_) {
        if (pending->sent && pending->statusTopic == statusTopic) pending->lost = Lost::service;
    }
}

void Client::completeRequest(const Incoming& message) {
    const std::string correlation = message.correlationData();
    std::uint64_t number = 0;
    if (correlation.size() != sizeof number) return;
    std::memcpy(&number, correlation.data(), sizeof number);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (number - firstRequest_ >= nextRequest_ - firstRequest_) return;
    ++answers_;
    const auto found = pending_.find(number);
    if (found == pending_.end() || found->second->answered) return;
    found->second->answered = true;
    found->second->answer = message.payload;
    found->second->changed.notify_one();
}

void Client::wakeAll() {
    for (const auto& [number, pending] : pending_) pending->changed.notify_one();
    presenceChanged_.notify_all();
}

}  // namespace ipc

#include "Connection.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "Socket.h"
#include "Thread.h"
#include "debug/Debug.h"
#include "ipc/IPCException.h"

namespace ipc {

namespace {

using std::chrono::milliseconds;

constexpr int keepAliveSeconds = 60;
constexpr std::chrono::seconds upkeepInterval{10};
constexpr milliseconds firstPause{100};
constexpr milliseconds longestPause{5000};
constexpr std::chrono::seconds settled{5};  // a connection that lasted this long starts the back-off anew
constexpr milliseconds flushTime{500};
constexpr std::uint32_t sessionSeconds = 3600;
constexpr std::uint32_t maxPacket = 16U * 1024U * 1024U;

bool isConnectionFailure(int result) {
    return result == MOSQ_ERR_NO_CONN || result == MOSQ_ERR_CONN_LOST || result == MOSQ_ERR_ERRNO;
}

bool hasNul(std::string_view text) { return text.find('\0') != std::string_view::npos; }

}  // namespace

Connection::Connection(Options options, ConnectionListener& listener)
    : options_(std::move(options)), listener_(listener), wakeup_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (wakeup_ < 0) throw IPCException("Cannot make an event descriptor: " + systemText(errno));
}

Connection::~Connection() {
    close();
    ::close(wakeup_);
}

void Connection::open(const std::string& host, bool forEver) {
    address_ = parseAddress(host);
    forEver_ = forEver;
    thread_ = startThread("ipc-network", [this] { run(); });
}

void Connection::waitUntilReady() {
    std::unique_lock<std::mutex> lock(mutex_);
    const std::string broker = address_.host + ":" + std::to_string(address_.port);
    // The thread keeps to the same limit; the second more is for a name look-up that it cannot interrupt.
    const auto limit = Clock::now() + connectTimeout + std::chrono::seconds(1);
    if (!changed_.wait_until(lock, limit, [this] { return ready_ || ended_; })) {
        throw IPCException("Cannot connect to the broker at " + broker + ": no answer");
    }
    if (!ready_) throw IPCException("Cannot connect to the broker at " + broker + ": " + failure_);
    for (const auto& [identifier, subscription] : subscriptions_) {
        if (!subscription.refusal.empty()) {
            throw IPCException("The broker refuses the subscription \"" + subscription.filter +
                               "\": " + subscription.refusal);
        }
    }
}

void Connection::close() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!closing_) {
            closeDeadline_ = Clock::now() + flushTime;
            if (up_ && !options_.statusTopic.empty()) {
                enqueue({options_.statusTopic, "offline", 1, {}, {}}, true);
            }
            closing_ = true;
        }
    }
    changed_.notify_all();
    wake();
    if (thread_.joinable()) thread_.join();
}

void Connection::dropSession() {
    const std::lock_guard<std::mutex> lock(mutex_);
    sessionDropped_ = true;
}

void Connection::resumeReading() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!readingPaused_) return;
        readingPaused_ = false;
    }
    wake();
}

void Connection::wake() const {
    const std::uint64_t one = 1;
    // A full counter means that a wake-up is pending already.
    [[maybe_unused]] const ssize_t written = ::write(wakeup_, &one, sizeof one);
}

// ---- sending: any thread, mutex_ held ----

bool Connection::publish(const Message& message) {
    if (message.topic.empty() || hasNul(message.topic) || hasNul(message.responseTopic) ||
        message.correlationData.size() > 65535 || message.payload.size() > maxPacket ||
        mosquitto_pub_topic_check2(message.topic.data(), message.topic.size()) != MOSQ_ERR_SUCCESS ||
        mosquitto_validate_utf8(message.topic.data(), static_cast<int>(message.topic.size())) != MOSQ_ERR_SUCCESS) {
        throw IPCException("Not a message that can be published: \"" + std::string(message.topic) + "\"");
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (closing_) throw IPCException("The connection is closed");
    if (message.qualityOfService > 0) {
        if (waiting_.size() >= maxWaiting) throw IPCException("Too many messages wait for the broker");
        enqueue(message, false);
        if (waiting_.back().mid < 0) {
            waiting_.pop_back();
            throw IPCException("The broker takes no such message: \"" + std::string(message.topic) + "\"");
        }
        return true;
    }
    if (!up_) return false;
    if (backlog_ >= maxWaiting) throw IPCException("Too many messages wait for the broker");
    const int result = send(message, false, nullptr);
    if (result != MOSQ_ERR_SUCCESS && !isConnectionFailure(result)) {
        throw IPCException(std::string("Cannot publish: ") + mosquitto_strerror(result));
    }
    return result == MOSQ_ERR_SUCCESS;
}

int Connection::send(const Message& message, bool retain, int* mid) {
    Properties properties;
    if (!message.responseTopic.empty()) properties.addText(MQTT_PROP_RESPONSE_TOPIC, message.responseTopic);
    if (!message.correlationData.empty()) {
        properties.addBinary(MQTT_PROP_CORRELATION_DATA, message.correlationData);
    }
    const int result = mosquitto_publish_v5(handle_.get(), mid, std::string(message.topic).c_str(),
                                            static_cast<int>(message.payload.size()), message.payload.data(),
                                            message.qualityOfService, retain, properties.get());
    wakeIfBehind();
    return result;
}

void Connection::enqueue(const Message& message, bool retain) {
    waiting_.push_back({std::string(message.topic), std::string(message.payload), retain, message.responseTopic,
                        message.correlationData, 0});
    if (up_) sendWaiting(waiting_.back());
}

void Connection::sendWaiting(Waiting& waiting) {
    const Message message{waiting.topic, waiting.payload, 1, waiting.responseTopic, waiting.correlationData};
    const int result = send(message, waiting.retain, &waiting.mid);
    if (result != MOSQ_ERR_SUCCESS && !isConnectionFailure(result)) {
        // It will never be sent; nothing else may wait behind it.
        dbg::Debug::error() << "Cannot publish on " << waiting.topic << ": " << mosquitto_strerror(result) << std::endl;
        waiting.mid = -1;
    }
}

void Connection::wakeIfBehind() {
    // libmosquitto writes at once; what the socket did not take is the network thread's to write.
    if (mosquitto_want_write(handle_.get())) {
        ++backlog_;
        wake();
    } else {
        backlog_ = 0;
    }
}

bool Connection::waitForRoom() {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto room = [this] { return waiting_.size() < maxWaiting / 2; };
    changed_.wait(lock, [&] { return waitingStopped_ || closing_ || room(); });
    return room();
}

void Connection::stopWaiting() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        waitingStopped_ = true;
    }
    changed_.notify_all();
}

// ---- subscriptions ----

std::uint32_t Connection::subscribe(const std::string& filter, int qualityOfService, int retained,
                                    const std::function<void(std::uint32_t)>& registered) {
    if (filter.empty() || hasNul(filter) ||
        mosquitto_sub_topic_check2(filter.data(), filter.size()) != MOSQ_ERR_SUCCESS ||
        mosquitto_validate_utf8(filter.data(), static_cast<int>(filter.size())) != MOSQ_ERR_SUCCESS) {
        throw IPCException("Not a topic filter: \"" + filter + "\"");
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    auto found = std::find_if(subscriptions_.begin(), subscriptions_.end(),
                              [&filter](const auto& each) { return each.second.filter == filter; });
    if (found != subscriptions_.end()) {
        // The broker knows a filter once a client, so that its users share it.
        Subscription& shared = found->second;
        ++shared.users;
        shared.qualityOfService = std::max(shared.qualityOfService, qualityOfService);
        shared.retained = MQTT_SUB_OPT_SEND_RETAIN_ALWAYS;
    } else {
        found = subscriptions_.emplace(nextSubscription_++, Subscription()).first;
        found->second.filter = filter;
        found->second.qualityOfService = qualityOfService;
        found->second.retained = retained;
    }
    found->second.answered = false;
    if (registered) registered(found->first);
    if (up_) sendSubscription(found->first, found->second);
    return found->first;
}

void Connection::sendSubscription(std::uint32_t identifier, Subscription& subscription) {
    Properties properties;
    if (identifiersAllowed_) properties.addVarint(MQTT_PROP_SUBSCRIPTION_IDENTIFIER, identifier);
    subscription.answered = false;
    int mid = 0;
    const int result = mosquitto_subscribe_v5(handle_.get(), &mid, subscription.filter.c_str(),
                                              subscription.qualityOfService, subscription.retained, properties.get());
    wakeIfBehind();
    if (result == MOSQ_ERR_SUCCESS) {
        unanswered_[mid] = identifier;
    } else if (!isConnectionFailure(result)) {
        subscription.answered = true;
        subscription.refusal = mosquitto_strerror(result);
    }
}

void Connection::waitForSubscription(std::uint32_t identifier) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto answered = [this, identifier] {
        const auto found = subscriptions_.find(identifier);
        return closing_ || found == subscriptions_.end() || found->second.answered;
    };
    const bool inTime = changed_.wait_until(lock, Clock::now() + connectTimeout, answered);
    const auto found = subscriptions_.find(identifier);
    if (!inTime || closing_ || found == subscriptions_.end()) throw IPCException("The broker does not answer");
    if (!found->second.refusal.empty()) {
        throw IPCException("The broker refuses the subscription \"" + found->second.filter +
                           "\": " + found->second.refusal);
    }
}

void Connection::unsubscribe(std::uint32_t identifier) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = subscriptions_.find(identifier);
    if (found == subscriptions_.end() || --found->second.users > 0) return;
    if (up_) {
        mosquitto_unsubscribe(handle_.get(), nullptr, found->second.filter.c_str());
        wakeIfBehind();
    }
    subscriptions_.erase(found);
}

// ---- the network thread ----

void Connection::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    milliseconds pause = firstPause;
    while (!closing_) {
        failure_.clear();
        const auto begin = Clock::now();
        readyDeadline_ = begin + connectTimeout;
        connectOnce(lock);
        if (closing_) break;
        if (!everUp_ && !forEver_) break;
        // Two clients of one name push each other off the broker: only a connection that held counts as a success.
        if (Clock::now() - begin > connectTimeout + settled) pause = firstPause;
        waitToRetry(lock, pause);
        pause = std::min(pause * 2, longestPause);
    }
    ended_ = true;
    changed_.notify_all();
}

void Connection::connectOnce(std::unique_lock<std::mutex>& lock) {
    lock.unlock();
    std::string why;
    const std::vector<std::string> addresses = resolve(address_, why);
    lock.lock();
    if (addresses.empty()) failure_ = why;
    for (const std::string& address : addresses) {
        if (closing_) return;
        if (!openHandle(lock, address)) continue;
        pump(lock);
        const bool wasUp = up_;
        up_ = false;
        ready_ = false;
        handle_.reset();
        if (wasUp) {
            if (!closing_) afterLoss();
            return;
        }
    }
}

bool Connection::openHandle(std::unique_lock<std::mutex>& lock, const std::string& numericAddress) {
    const bool keep = options_.keepSession && !sessionDropped_;
    const auto deadline = readyDeadline_;
    // libmosquitto's own connect would block for minutes where packets vanish; so ask first, with a time-out.
    std::optional<std::string> probed;
    while (!probed) {
        drain(wakeup_);
        if (closing_) return false;
        lock.unlock();
        probed = probe(numericAddress, address_.port, deadline, wakeup_);
        lock.lock();
    }
    std::string why = *probed;
    lock.unlock();
    Handle handle;
    if (why.empty()) {
        // What was queued for us during a cut is to arrive, but nothing of the process before this one.
        handle = newHandle(options_.clientId, !(keep && everUp_), this);
        mosquitto_connect_v5_callback_set(handle.get(), &onConnect);
        mosquitto_disconnect_v5_callback_set(handle.get(), &onDisconnect);
        mosquitto_publish_v5_callback_set(handle.get(), &onPublish);
        mosquitto_subscribe_v5_callback_set(handle.get(), &onSubscribe);
        mosquitto_message_v5_callback_set(handle.get(), &onMessage);
        if (!options_.statusTopic.empty()) {
            mosquitto_will_set_v5(handle.get(), options_.statusTopic.c_str(), 7, "offline", 1, true, nullptr);
        }
        Properties properties;
        properties.add32(MQTT_PROP_SESSION_EXPIRY_INTERVAL, keep ? sessionSeconds : 0);
        properties.add32(MQTT_PROP_MAXIMUM_PACKET_SIZE, maxPacket);
        const int result = mosquitto_connect_bind_v5(handle.get(), numericAddress.c_str(), address_.port,
                                                     keepAliveSeconds, nullptr, properties.get());
        if (result != MOSQ_ERR_SUCCESS) why = resultText(result, errno);
    }
    lock.lock();
    if (!why.empty()) {
        failure_ = why;
        return false;
    }
    failure_.clear();
    handle_ = std::move(handle);
    connackSeen_ = false;
    identifiersAllowed_ = true;
    backlog_ = 0;
    unanswered_.clear();
    nextUpkeep_ = Clock::now() + upkeepInterval;
    acknowledgeAtOnce(mosquitto_socket(handle_.get()));
    return true;
}

/// Returns when the connection is over, whoever ended it.
void Connection::pump(std::unique_lock<std::mutex>& lock) {
    for (;;) {
        const auto now = Clock::now();
        if (!mayGoOn(now)) return;
        auto until = nextUpkeep_;
        if (!ready_) until = std::min(until, readyDeadline_);
        if (closing_) until = std::min(until, closeDeadline_);
        const auto wait = std::chrono::ceil<milliseconds>(until - now).count();
        const bool reads = !readingPaused_ || closing_;
        pollfd watched[2] = {{mosquitto_socket(handle_.get()), 0, 0}, {wakeup_, POLLIN, 0}};
        watched[0].events =
            static_cast<short>((reads ? POLLIN : 0) | (mosquitto_want_write(handle_.get()) ? POLLOUT : 0));
        lock.unlock();
        poll(watched, 2, static_cast<int>(std::max<milliseconds::rep>(wait, 0)));
        if (watched[1].revents != 0) drain(wakeup_);
        lock.lock();
        service(watched[0].revents);
    }
}

bool Connection::mayGoOn(Clock::time_point now) {
    if (mosquitto_socket(handle_.get()) < 0) {
        fail("the connection was closed");
        return false;
    }
    if (closing_) {
        const bool flushed = !up_ || (waiting_.empty() && !mosquitto_want_write(handle_.get()));
        if (!flushed && now < closeDeadline_) return true;
        if (up_) {
            Properties properties;
            properties.add32(MQTT_PROP_SESSION_EXPIRY_INTERVAL, 0);
            mosquitto_disconnect_v5(handle_.get(), MQTT_RC_NORMAL_DISCONNECTION, properties.get());
        }
        return false;
    }
    if (!ready_ && now >= readyDeadline_) {
        fail("the broker does not answer");
        return false;
    }
    return true;
}

void Connection::service(short events) {
    mosquitto* const handle = handle_.get();
    int result = MOSQ_ERR_SUCCESS;
    if ((events & POLLOUT) != 0) result = mosquitto_loop_write(handle, 1);
    if (result == MOSQ_ERR_SUCCESS && (events & (POLLIN | POLLERR | POLLHUP)) != 0) {
        reading_ = true;
        result = mosquitto_loop_read(handle, 1);
        reading_ = false;
        acknowledgeAtOnce(mosquitto_socket(handle));
    }
    if (result == MOSQ_ERR_SUCCESS && Clock::now() >= nextUpkeep_) {
        result = mosquitto_loop_misc(handle);
        nextUpkeep_ = Clock::now() + upkeepInterval;
    }
    if (!mosquitto_want_write(handle)) backlog_ = 0;
    if (result != MOSQ_ERR_SUCCESS || mosquitto_socket(handle) < 0) return;  // mayGoOn ends it
    // Here and not in the callbacks, inside which libmosquitto sends nothing.
    if (connackSeen_ && !up_) accepted();
    if (up_ && !ready_ && unanswered_.empty()) becomeReady();
}

void Connection::accepted() {
    up_ = true;
    everUp_ = true;
    for (auto& [identifier, subscription] : subscriptions_) sendSubscription(identifier, subscription);
    for (Waiting& waiting : waiting_) sendWaiting(waiting);
    waiting_.erase(std::remove_if(waiting_.begin(), waiting_.end(), [](const Waiting& each) { return each.mid < 0; }),
                   waiting_.end());
}

void Connection::becomeReady() {
    ready_ = true;
    if (!options_.statusTopic.empty()) enqueue({options_.statusTopic, "online", 1, {}, {}}, true);
    if (options_.logsItself) dbg::Debug::info() << "Connected to the broker" << std::endl;
    listener_.connectionReady();
    changed_.notify_all();
}

void Connection::afterLoss() {
    if (options_.logsItself) {
        dbg::Debug::warning() << "Connection to the broker lost: " << failure_ << std::endl;
    }
    listener_.connectionLost(failure_);
    changed_.notify_all();
}

void Connection::waitToRetry(std::unique_lock<std::mutex>& lock, milliseconds pause) {
    changed_.wait_until(lock, Clock::now() + pause, [this] { return closing_; });
}

void Connection::fail(const std::string& cause) {
    if (failure_.empty()) failure_ = cause;
}

// ---- callbacks: network thread, mutex_ held ----

void Connection::onConnect(mosquitto*, void* self, int reason, int, const mosquitto_property* properties) {
    auto& connection = *static_cast<Connection*>(self);
    if (reason != 0) {
        connection.fail(mosquitto_reason_string(reason));
        return;
    }
    std::uint8_t allowed = 1;
    mosquitto_property_read_byte(properties, MQTT_PROP_SUBSCRIPTION_ID_AVAILABLE, &allowed, false);
    connection.identifiersAllowed_ = allowed != 0;
    connection.connackSeen_ = true;
}

void Connection::onDisconnect(mosquitto*, void* self, int reason, const mosquitto_property*) {
    auto& connection = *static_cast<Connection*>(self);
    // From 128 on it is the broker's reason, below libmosquitto's.
    connection.fail(reason >= 128 ? mosquitto_reason_string(reason) : mosquitto_strerror(reason));
}

void Connection::onPublish(mosquitto*, void* self, int mid, int reason, const mosquitto_property*) {
    auto& connection = *static_cast<Connection*>(self);
    // A message with quality of service 0 reports here too, when it is written.
    if (!connection.reading_) return;
    auto& waiting = connection.waiting_;
    const auto found =
        std::find_if(waiting.begin(), waiting.end(), [mid](const Waiting& each) { return each.mid == mid; });
    if (found == waiting.end()) return;
    if (reason < 128) {
        connection.listener_.messageAcknowledged(found->topic);
    } else {
        dbg::Debug::error() << "The broker refuses a message on " << found->topic << ": "
                            << mosquitto_reason_string(reason) << std::endl;
    }
    waiting.erase(found);
    if (waiting.size() < maxWaiting / 2) connection.changed_.notify_all();
}

void Connection::onSubscribe(mosquitto*, void* self, int mid, int count, const int* granted,
                             const mosquitto_property*) {
    auto& connection = *static_cast<Connection*>(self);
    const auto answered = connection.unanswered_.find(mid);
    if (answered == connection.unanswered_.end()) return;
    const auto found = connection.subscriptions_.find(answered->second);
    connection.unanswered_.erase(answered);
    if (found == connection.subscriptions_.end()) return;
    found->second.answered = true;
    found->second.refusal = count > 0 && granted[0] >= 128 ? mosquitto_reason_string(granted[0]) : "";
    connection.changed_.notify_all();
}

void Connection::onMessage(mosquitto*, void* self, const mosquitto_message* message,
                           const mosquitto_property* properties) {
    auto& connection = *static_cast<Connection*>(self);
    Incoming incoming;
    incoming.topic = message->topic;
    if (message->payloadlen > 0) {
        incoming.payload = {static_cast<const char*>(message->payload), static_cast<size_t>(message->payloadlen)};
    }
    incoming.qualityOfService = message->qos;
    incoming.properties = properties;
    if (!connection.listener_.messageArrived(incoming)) connection.readingPaused_ = true;
}

}  // namespace ipc

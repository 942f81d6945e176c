#include "Connection.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "Socket.h"
#include "Thread.h"
#include "debug/Debug.h"
#include "ipc/IPCException.h"

namespace ipc {

namespace {

constexpr std::chrono::milliseconds flushTime{500};
constexpr std::size_t manyBytes = std::size_t{4} * 1024 * 1024;
// Brokers cut off who publishes on a topic of more levels; kept until it is acknowledged, it would do so for ever.
constexpr std::ptrdiff_t maxSlashes = 200;

bool isConnectionFailure(int result) {
    return result == MOSQ_ERR_NO_CONN || result == MOSQ_ERR_CONN_LOST || result == MOSQ_ERR_ERRNO;
}

/// What counts of a message that has to be kept.
template <typename Kept>
std::size_t sizeOf(const Kept& message) {
    return message.topic.size() + message.payload.size() + message.responseTopic.size() +
           message.correlationData.size();
}

bool hasNul(std::string_view text) { return text.find('\0') != std::string_view::npos; }

bool isTooDeep(std::string_view topic) { return std::count(topic.begin(), topic.end(), '/') > maxSlashes; }

}  // namespace

Connection::Connection(Options options, ConnectionListener& listener)
    : options_(std::move(options)), listener_(listener), wakeup_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (wakeup_.get() < 0) throw IPCException("Cannot make an event descriptor: " + systemText(errno));
}

Connection::~Connection() { close(); }

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

void Connection::sendTogether() {
    const std::lock_guard<std::mutex> lock(mutex_);
    cork();
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
    [[maybe_unused]] const ssize_t written = ::write(wakeup_.get(), &one, sizeof one);
}

// ---- sending: any thread, mutex_ held ----

bool Connection::publish(const Message& message) {
    if (message.topic.empty() || hasNul(message.topic) || isTooDeep(message.topic) || hasNul(message.responseTopic) ||
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
            forget(std::prev(waiting_.end()));
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
    if (mosquitto_want_write(handle_.get())) backlogBytes_ += sizeOf(message);
    wakeIfBehind();
    return result;
}

void Connection::enqueue(const Message& message, bool retain) {
    waiting_.push_back({std::string(message.topic), std::string(message.payload), message.qualityOfService, retain,
                        message.responseTopic, message.correlationData, 0});
    waitingBytes_ += sizeOf(message);
    if (up_) sendWaiting(waiting_.back());
}

Connection::WaitingList::iterator Connection::forget(const WaitingList::iterator& waiting) {
    waitingBytes_ -= sizeOf(*waiting);
    return waiting_.erase(waiting);
}

void Connection::cork() {
    if (!corked_) setCork(mosquitto_socket(handle_.get()), true);
    corked_ = true;
}

void Connection::sendWaiting(Waiting& waiting) {
    const Message message{waiting.topic, waiting.payload, waiting.qualityOfService, waiting.responseTopic,
                          waiting.correlationData};
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
        sent_ = true;
        caughtUp();
    }
}

void Connection::caughtUp() {
    backlog_ = 0;
    backlogBytes_ = 0;
}

Connection::Congestion Connection::congestion() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (backlog_ >= maxWaiting / 2 || backlogBytes_ >= manyBytes) return Congestion::unsent;
    if (waiting_.size() >= maxWaiting / 2 || waitingBytes_ >= manyBytes) return Congestion::unacknowledged;
    return Congestion::none;
}

std::size_t Connection::unsettled() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return up_ ? backlog_ + waiting_.size() : 0;
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

}  // namespace ipc

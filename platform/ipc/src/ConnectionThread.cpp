// The half of Connection that runs on its network thread.
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "Connection.h"
#include "Socket.h"
#include "debug/Debug.h"
#include "ipc/IPCException.h"

namespace ipc {

namespace {

using std::chrono::milliseconds;

constexpr int keepAliveSeconds = 60;
constexpr std::chrono::seconds upkeepInterval{10};
constexpr std::uint32_t sessionSeconds = 3600;
constexpr std::size_t packetsPerRound = 256;
constexpr unsigned char connackByte = 0x20;

}  // namespace

void Connection::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    BackOff backOff;
    while (!closing_) {
        failure_.clear();
        loss_ = BackOff::Loss::plain;
        readyDeadline_ = Clock::now() + connectTimeout;
        readySince_ = Clock::time_point::max();
        connectOnce(lock);
        if (closing_) break;
        if (!everUp_ && !forEver_) break;
        waitToRetry(lock, backOff.next(std::chrono::duration_cast<milliseconds>(held()), loss_));
    }
    ended_ = true;
    changed_.notify_all();
}

/// How long the last connection was ready.
Connection::Clock::duration Connection::held() const {
    return readySince_ == Clock::time_point::max() ? Clock::duration::zero() : Clock::now() - readySince_;
}

void Connection::connectOnce(std::unique_lock<std::mutex>& lock) {
    lock.unlock();
    std::string why;
    const std::vector<std::string> addresses = resolve(address_, why);
    lock.lock();
    if (addresses.empty()) failure_ = why;
    std::string notABroker;
    for (const std::string& address : addresses) {
        if (closing_) return;
        if (!openHandle(lock, address)) continue;
        pump(lock);
        const bool wasUp = up_;
        up_ = false;
        ready_ = false;
        handle_.reset();
        if (wasUp) {
            suspectTakeover(lock, address);
            if (!closing_) afterLoss();
            return;
        }
        if (!connackSeen_ && !refused_) {
            notABroker = "what listens there did not answer as an MQTT broker (" + failure_ + ")";
        }
    }
    // The next address may have nobody listening at all, which tells less.
    if (!notABroker.empty()) failure_ = notABroker;
    if (!closing_) tellFailure();
}

bool Connection::openHandle(std::unique_lock<std::mutex>& lock, const std::string& numericAddress) {
    const bool keep = options_.keepSession && !sessionDropped_;
    const auto deadline = readyDeadline_;
    // libmosquitto's own connect would block for minutes where packets vanish; so ask first, with a time-out.
    std::optional<std::string> probed;
    while (!probed) {
        drain(wakeup_.get());
        if (closing_) return false;
        lock.unlock();
        probed = probe(numericAddress, address_.port, deadline, wakeup_.get());
        lock.lock();
    }
    std::string why = *probed;
    lock.unlock();
    Handle handle;
    if (why.empty()) {
        // What was queued for us during a cut is to arrive, but nothing of the process before this one.
        try {
            handle = newHandle(options_.clientId, !(keep && everUp_), this);
        } catch (const IPCException& error) {
            why = error.what();
        }
    }
    if (handle) {
        if (!options_.userName.empty()) {
            mosquitto_username_pw_set(handle.get(), options_.userName.c_str(), nullptr);
        }
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
    answerBegun_ = false;
    connackSeen_ = false;
    refused_ = false;
    closedByPeer_ = false;
    identifiersAllowed_ = true;
    corked_ = false;
    readingPaused_ = false;
    caughtUp();
    unanswered_.clear();
    nextUpkeep_ = Clock::now() + upkeepInterval;
    prepareSocket(mosquitto_socket(handle_.get()));
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
        pollfd watched[2] = {{mosquitto_socket(handle_.get()), 0, 0}, {wakeup_.get(), POLLIN, 0}};
        watched[0].events =
            static_cast<short>((reads ? POLLIN : 0) | (mosquitto_want_write(handle_.get()) ? POLLOUT : 0));
        lock.unlock();
        poll(watched, 2, static_cast<int>(std::max<milliseconds::rep>(wait, 0)));
        if (watched[1].revents != 0) drain(wakeup_.get());
        lock.lock();
        sent_ = false;
        // Each acknowledgement that is read lets libmosquitto send another message that waits.
        if (waiting_.size() > 1) cork();
        service(watched[0].revents);
        lock.unlock();
        listener_.roundEnded();
        lock.lock();
        if (corked_) setCork(mosquitto_socket(handle_.get()), false);
        corked_ = false;
        // What was sent since acknowledges by itself.
        if ((watched[0].revents & POLLIN) != 0 && !sent_) acknowledgeAtOnce(mosquitto_socket(handle_.get()));
    }
}

bool Connection::mayGoOn(Clock::time_point now) {
    if (!up_ && !failure_.empty()) return false;
    if (mosquitto_socket(handle_.get()) < 0) {
        fail(connackSeen_ ? lossText(MOSQ_ERR_CONN_LOST, 0) : noBrokerText(MOSQ_ERR_CONN_LOST, 0));
        return false;
    }
    if (closing_) {
        const bool flushed = !up_ || (waiting_.empty() && !mosquitto_want_write(handle_.get()));
        if (!flushed && now < closeDeadline_) return true;
        if (up_) {
            Properties properties;
            properties.add32(MQTT_PROP_SESSION_EXPIRY_INTERVAL, 0);
            // What could not say "offline" itself leaves that to its last will.
            const int reason = waiting_.empty() ? MQTT_RC_NORMAL_DISCONNECTION : MQTT_RC_DISCONNECT_WITH_WILL_MSG;
            mosquitto_disconnect_v5(handle_.get(), reason, properties.get());
        }
        return false;
    }
    if (!ready_ && now >= readyDeadline_) {
        const std::string seconds = std::to_string(connectTimeout.count());
        fail(connackSeen_ ? "the broker does not answer" : "no answer within " + seconds + " s");
        return false;
    }
    return true;
}

void Connection::service(short events) {
    mosquitto* const handle = handle_.get();
    if (!answersAsBroker()) return;
    int result = MOSQ_ERR_SUCCESS;
    // On a socket that the broker has closed a write would fail before its last word, the reason, is read.
    const bool closed = (events & (POLLERR | POLLHUP)) != 0;
    if ((events & POLLOUT) != 0 && !closed) result = mosquitto_loop_write(handle, 1);
    if (result == MOSQ_ERR_SUCCESS && (events & (POLLIN | POLLERR | POLLHUP)) != 0) {
        result = readWhatCame();
    }
    if (result == MOSQ_ERR_SUCCESS && Clock::now() >= nextUpkeep_) {
        result = mosquitto_loop_misc(handle);
        nextUpkeep_ = Clock::now() + upkeepInterval;
    }
    if (!mosquitto_want_write(handle)) caughtUp();
    if (result != MOSQ_ERR_SUCCESS || mosquitto_socket(handle) < 0) return;  // mayGoOn ends it
    // Here and not in the callbacks, inside which libmosquitto sends nothing.
    if (connackSeen_ && !up_) accepted();
    if (up_ && !ready_ && unanswered_.empty()) becomeReady();
}

/// libmosquitto takes any byte for the beginning of a packet, and waits for the rest of it.
bool Connection::answersAsBroker() {
    if (answerBegun_) return true;
    const auto first = peek(mosquitto_socket(handle_.get()));
    if (!first) return true;
    answerBegun_ = true;
    if (*first == connackByte) return true;
    fail(noBrokerText(MOSQ_ERR_PROTOCOL, 0));
    return false;
}

/// A round's worth: libmosquitto by itself reads a single packet.
int Connection::readWhatCame() {
    const std::size_t enough = arrivals_ + packetsPerRound;
    int result = MOSQ_ERR_SUCCESS;
    bool more = true;
    reading_ = true;
    while (more) {
        const std::size_t before = arrivals_;
        result = mosquitto_loop_read(handle_.get(), 1);
        const bool goOn = result == MOSQ_ERR_SUCCESS && !readingPaused_ && arrivals_ > before && arrivals_ < enough;
        more = goOn && hasMore(mosquitto_socket(handle_.get()));
    }
    reading_ = false;
    return result;
}

void Connection::accepted() {
    up_ = true;
    everUp_ = true;
    for (auto& [identifier, subscription] : subscriptions_) sendSubscription(identifier, subscription);
    // The presence of an earlier connection is out of date, and "online" would come before we can be asked.
    const auto drop = [this](const auto& isDropped) {
        for (auto each = waiting_.begin(); each != waiting_.end();) each = isDropped(*each) ? forget(each) : each + 1;
    };
    if (!options_.statusTopic.empty()) drop([this](const Waiting& each) { return each.topic == options_.statusTopic; });
    for (Waiting& waiting : waiting_) sendWaiting(waiting);
    drop([](const Waiting& each) { return each.mid < 0; });
}

void Connection::becomeReady() {
    ready_ = true;
    readySince_ = Clock::now();
    everReady_ = true;
    if (!options_.statusTopic.empty()) enqueue({options_.statusTopic, "online", 1, {}, {}}, true);
    toldFailure_.clear();
    if (options_.logsItself) dbg::Debug::info() << "Connected to the broker" << std::endl;
    listener_.connectionReady();
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
        connection.refused_ = reason != MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION;
        connection.fail(connection.refused_ ? mosquitto_reason_string(reason) : noBrokerText(reason, 0));
        return;
    }
    std::uint8_t allowed = 1;
    mosquitto_property_read_byte(properties, MQTT_PROP_SUBSCRIPTION_ID_AVAILABLE, &allowed, false);
    connection.identifiersAllowed_ = allowed != 0;
    connection.connackSeen_ = true;
}

void Connection::onPublish(mosquitto*, void* self, int mid, int reason, const mosquitto_property*) {
    auto& connection = *static_cast<Connection*>(self);
    // A message with quality of service 0 reports here too, when it is written.
    if (!connection.reading_) return;
    ++connection.arrivals_;
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
    connection.forget(found);
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
    // The first time, and for a later `subscribe`, somebody waits for the answer; otherwise the log is the one to tell.
    const bool waitedFor = !connection.options_.logsItself && (connection.ready_ || !connection.everReady_);
    if (!found->second.refusal.empty() && !waitedFor) {
        dbg::Debug::error() << "The broker refuses the subscription " << found->second.filter << ": "
                            << found->second.refusal << std::endl;
    }
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
    ++connection.arrivals_;
    if (!connection.listener_.messageArrived(incoming)) connection.readingPaused_ = true;
}

}  // namespace ipc

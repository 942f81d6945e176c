#include "Link.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <new>
#include <optional>

namespace ipc {

namespace {

using std::chrono::milliseconds;

constexpr std::uint16_t keepAliveSeconds = 60;
// libmosquitto counts in whole seconds, the system in its ticks. The broker waits for one and a half intervals.
constexpr milliseconds keepAliveMargin{100};
constexpr std::chrono::hours keepAliveOff{18};
constexpr unsigned char connackByte = 0x20;

/// Sends a delayed TCP acknowledgement now; repeat it after each read. A broker with Nagle's algorithm on holds its
/// next packet back until the last one is acknowledged, which costs 40 ms.
void enableQuickAck(int socket) {
    if (socket < 0) return;
    // The value 1 would acknowledge the next packet at once too, although a response is about to carry that
    // acknowledgement. So would 2 if there were nothing to acknowledge now.
    const int now = 2;
    setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &now, sizeof now);
}

/// While `on`, only full TCP segments are sent; switching it off sends the rest.
void setCork(int socket, bool on) {
    const int value = on ? 1 : 0;
    setsockopt(socket, IPPROTO_TCP, TCP_CORK, &value, sizeof value);
}

/// How long ago data was last sent and received.
struct Silence {
    milliseconds sent;
    milliseconds received;
};

/// Nothing if the system does not tell.
std::optional<Silence> silenceOf(int socket) {
    tcp_info info{};
    socklen_t size = sizeof info;
    constexpr std::size_t needed = offsetof(tcp_info, tcpi_last_data_recv) + sizeof info.tcpi_last_data_recv;
    if (getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) != 0 || size < needed) return std::nullopt;
    return Silence{milliseconds(info.tcpi_last_data_sent), milliseconds(info.tcpi_last_data_recv)};
}

}  // namespace

Link::Link(const Options& options, LinkListener& listener)
    : options_(options), listener_(listener), handle_(newHandle(options.clientId, options.cleanStart, this)) {
    mosquitto* const handle = handle_.get();
    if (!options.userName.empty()) mosquitto_username_pw_set(handle, options.userName.c_str(), nullptr);
    if (!options.willTopic.empty()) {
        mosquitto_will_set_v5(handle, options.willTopic.c_str(), 7, "offline", 1, true, nullptr);
    }
    mosquitto_connect_v5_callback_set(handle, &onConnect);
    mosquitto_disconnect_v5_callback_set(handle, &onDisconnect);
    mosquitto_publish_v5_callback_set(handle, &onPublish);
    mosquitto_subscribe_v5_callback_set(handle, &onSubscribe);
    mosquitto_message_v5_callback_set(handle, &onMessage);
}

std::string Link::connect(const std::string& numericAddress, int port) {
    Properties properties;
    properties.add32(MQTT_PROP_SESSION_EXPIRY_INTERVAL, options_.sessionSeconds);
    properties.add32(MQTT_PROP_MAXIMUM_PACKET_SIZE, maxPacket);
    const int result = mosquitto_connect_bind_v5(handle_.get(), numericAddress.c_str(), port, keepAliveSeconds, nullptr,
                                                 properties.get());
    if (result != MOSQ_ERR_SUCCESS) return resultText(result, errno);
    keepAliveAt_ = Clock::now() + keepAliveInterval_;
    enableQuickAck(descriptor());
    if (descriptor() >= 0) fcntl(descriptor(), F_SETFD, FD_CLOEXEC);
    return {};
}

bool Link::isOver() const { return !failure_.empty() || descriptor() < 0; }

std::string Link::failure() const {
    if (!failure_.empty() || descriptor() >= 0) return failure_;
    return stage_ == Stage::accepted ? lossText(MOSQ_ERR_CONN_LOST, 0) : handshakeFailureText(MOSQ_ERR_CONN_LOST, 0);
}

void Link::fail(const std::string& cause) {
    if (failure_.empty()) failure_ = cause;
}

// ---- sending ----

int Link::publish(const Message& message, bool retain, int* identifier) {
    Properties properties;
    if (!message.responseTopic.empty()) properties.addText(MQTT_PROP_RESPONSE_TOPIC, message.responseTopic);
    if (!message.correlationData.empty()) {
        properties.addBinary(MQTT_PROP_CORRELATION_DATA, message.correlationData);
    }
    const int result =
        mosquitto_publish_v5(handle_.get(), identifier, message.topic.c_str(), static_cast<int>(message.payload.size()),
                             message.payload.data(), message.qualityOfService, retain, properties.get());
    noteWrite();
    return result;
}

int Link::subscribe(const std::string& filter, int qualityOfService, int retained, std::uint32_t subscription,
                    int* identifier) {
    Properties properties;
    if (subscription != 0 && canNameSubscriptions_)
        properties.addVarint(MQTT_PROP_SUBSCRIPTION_IDENTIFIER, subscription);
    const int result =
        mosquitto_subscribe_v5(handle_.get(), identifier, filter.c_str(), qualityOfService, retained, properties.get());
    noteWrite();
    return result;
}

void Link::unsubscribe(const std::string& filter) {
    mosquitto_unsubscribe(handle_.get(), nullptr, filter.c_str());
    noteWrite();
}

void Link::disconnect(bool will) {
    Properties properties;
    properties.add32(MQTT_PROP_SESSION_EXPIRY_INTERVAL, 0);
    mosquitto_disconnect_v5(handle_.get(), will ? MQTT_RC_DISCONNECT_WITH_WILL_MSG : MQTT_RC_NORMAL_DISCONNECTION,
                            properties.get());
}

void Link::noteWrite() {
    if (!hasPendingWrites()) wrote_ = true;
}

// ---- the loop ----

short Link::eventsToAwait(bool readAnyway) const {
    const bool reads = readAnyway || !readingPaused_;
    return static_cast<short>((reads ? POLLIN : 0) | (hasPendingWrites() ? POLLOUT : 0));
}

void Link::beginRound() { wrote_ = false; }

bool Link::serve(short events) {
    mosquitto* const handle = handle_.get();
    if (!startsWithConnack()) return false;
    int result = MOSQ_ERR_SUCCESS;
    // On a closed socket a write would fail before the broker's DISCONNECT, which has the reason, is read.
    const bool closed = (events & (POLLERR | POLLHUP)) != 0;
    if ((events & POLLOUT) != 0 && !closed) result = mosquitto_loop_write(handle, 1);
    if (result == MOSQ_ERR_SUCCESS && (events & (POLLIN | POLLERR | POLLHUP)) != 0) result = readPacket();
    return result == MOSQ_ERR_SUCCESS && descriptor() >= 0;
}

/// libmosquitto would take any first byte for the beginning of a packet and wait for the rest.
bool Link::startsWithConnack() {
    if (stage_ != Stage::silent) return true;
    unsigned char first = 0;
    if (recv(descriptor(), &first, 1, MSG_PEEK | MSG_DONTWAIT) != 1) return true;
    stage_ = Stage::answering;
    if (first == connackByte) return true;
    fail(handshakeFailureText(MOSQ_ERR_PROTOCOL, 0));
    return false;
}

int Link::readPacket() {
    reading_ = true;
    const int result = mosquitto_loop_read(handle_.get(), 1);
    reading_ = false;
    return result;
}

// libmosquitto does not tell when a ping is due, and asking it now and then would wake the process. A ping is due once
// nothing was sent, or nothing received, for an interval. Where the system does not tell, libmosquitto is asked.
void Link::keepAlive() {
    const auto now = Clock::now();
    if (isOver() || now < keepAliveAt_) return;
    const auto before = silenceOf(descriptor());
    const auto silent = before ? std::max(before->sent, before->received) : milliseconds::max();
    if (silent < keepAliveInterval_) {
        keepAliveAt_ = now + keepAliveInterval_ - silent + keepAliveMargin;
        return;
    }
    mosquitto_loop_misc(handle_.get());
    const auto after = isOver() ? std::nullopt : silenceOf(descriptor());
    const bool hasSent = after && after->sent < keepAliveInterval_;
    keepAliveAt_ = now + (hasSent ? keepAliveInterval_ - after->sent + keepAliveMargin : keepAliveInterval_ / 3);
}

void Link::cork() {
    if (!corked_) setCork(descriptor(), true);
    corked_ = true;
}

void Link::uncork() {
    if (corked_) setCork(descriptor(), false);
    corked_ = false;
}

void Link::endRound(short events) {
    uncork();
    // Data written since then carries the acknowledgement.
    if ((events & POLLIN) != 0 && !wrote_) enableQuickAck(descriptor());
}

bool Link::resumeReading() {
    const bool wasPaused = readingPaused_;
    readingPaused_ = false;
    return wasPaused;
}

// ---- libmosquitto's callbacks ----

template <typename Function>
void Link::guarded(Function&& callback) {
    try {
        callback();
    } catch (const std::bad_alloc&) {
        fail("out of memory");  // short enough to need none
    }
}

void Link::onConnect(mosquitto*, void* self, int reason, int, const mosquitto_property* properties) {
    auto& link = *static_cast<Link*>(self);
    if (reason != 0) {
        const bool refused = reason != MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION;
        if (refused) link.stage_ = Stage::refused;
        link.fail(refused ? mosquitto_reason_string(reason) : handshakeFailureText(reason, 0));
        return;
    }
    std::uint8_t allowed = 1;
    mosquitto_property_read_byte(properties, MQTT_PROP_SUBSCRIPTION_ID_AVAILABLE, &allowed, false);
    link.canNameSubscriptions_ = allowed != 0;
    mosquitto_property_read_int16(properties, MQTT_PROP_RECEIVE_MAXIMUM, &link.receiveMaximum_, false);
    std::uint16_t seconds = keepAliveSeconds;
    mosquitto_property_read_int16(properties, MQTT_PROP_SERVER_KEEP_ALIVE, &seconds, false);
    link.keepAliveInterval_ = seconds > 0 ? std::chrono::seconds(seconds) : keepAliveOff;
    link.keepAliveAt_ = Clock::now() + link.keepAliveInterval_ + keepAliveMargin;
    link.stage_ = Stage::accepted;
}

void Link::onDisconnect(mosquitto*, void* self, int reason, const mosquitto_property*) {
    const int systemError = errno;
    auto& link = *static_cast<Link*>(self);
    if (reason == MQTT_RC_SESSION_TAKEN_OVER) {
        link.loss_ = BackOff::Loss::takeover;
        link.fail("another client named \"" + link.options_.clientId + "\" has taken over the session");
        return;
    }
    const bool reset = systemError == 0 || systemError == ECONNRESET || systemError == EPIPE;
    link.closedByPeer_ = reason == MOSQ_ERR_CONN_LOST || (reason == MOSQ_ERR_ERRNO && reset);
    link.fail(link.stage_ == Stage::accepted ? lossText(reason, systemError)
                                             : handshakeFailureText(reason, systemError));
}

void Link::onPublish(mosquitto*, void* self, int identifier, int reason, const mosquitto_property*) {
    auto& link = *static_cast<Link*>(self);
    // Also called when a message with quality of service 0 has been written.
    if (!link.reading_) return;
    link.guarded([&] { link.listener_.acknowledged(identifier, reason); });
}

void Link::onSubscribe(mosquitto*, void* self, int identifier, int count, const int* granted,
                       const mosquitto_property*) {
    auto& link = *static_cast<Link*>(self);
    const bool refused = count > 0 && granted[0] >= 128;
    link.guarded([&] { link.listener_.subscribed(identifier, refused ? mosquitto_reason_string(granted[0]) : ""); });
}

void Link::onMessage(mosquitto*, void* self, const mosquitto_message* message, const mosquitto_property* properties) {
    auto& link = *static_cast<Link*>(self);
    Incoming incoming;
    incoming.topic = message->topic;
    if (message->payloadlen > 0) {
        incoming.payload = {static_cast<const char*>(message->payload), static_cast<size_t>(message->payloadlen)};
    }
    incoming.qualityOfService = message->qos;
    incoming.properties = properties;
    incoming.canNameSubscriptions = link.canNameSubscriptions_;
    link.guarded([&] {
        if (!link.listener_.arrived(incoming)) link.readingPaused_ = true;
    });
}

}  // namespace ipc

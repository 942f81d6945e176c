#include "fakes/StubbornBroker.h"

#include <arpa/inet.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace fakes {

namespace {

enum Type {
    connect = 1,
    connack = 2,
    publish = 3,
    puback = 4,
    subscribe = 8,
    suback = 9,
    pingreq = 12,
    pingresp = 13,
    disconnect = 14,
};
constexpr unsigned char sessionTakenOver = 0x8e;
constexpr char serverKeepAliveProperty = 0x13;
constexpr char receiveMaximumProperty = 0x21;

std::string variableLength(std::size_t length) {
    std::string bytes;
    do {
        bytes += static_cast<char>((length % 128) | (length >= 128 ? 128 : 0));
        length /= 128;
    } while (length > 0);
    return bytes;
}

std::string packet(int firstByte, const std::string& body) {
    return static_cast<char>(firstByte) + variableLength(body.size()) + body;
}

std::string text(const std::string& value) {
    return std::string{static_cast<char>(value.size() / 256), static_cast<char>(value.size() % 256)} + value;
}

std::string property(char identifier, std::uint16_t value) {
    return {identifier, static_cast<char>(value / 256), static_cast<char>(value % 256)};
}

int segmentsWithData(int socket) {
    tcp_info info{};
    socklen_t size = sizeof info;
    getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size);
    return static_cast<int>(info.tcpi_data_segs_in);
}

}  // namespace

StubbornBroker::StubbornBroker(std::uint16_t receiveMaximum, std::uint16_t keepAlive)
    : wakeup_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)), receiveMaximum_(receiveMaximum), keepAlive_(keepAlive) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (bind(listener_, generic, size) != 0 || listen(listener_, 4) != 0) throw std::runtime_error("Cannot listen");
    getsockname(listener_, generic, &size);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
}

StubbornBroker::~StubbornBroker() {
    stopping_ = true;
    eventfd_write(wakeup_, 1);
    thread_.join();
    close(listener_);
    close(wakeup_);
}

void StubbornBroker::send(const std::string& topic, const std::string& payload, std::size_t times,
                          const std::string& correlationData) {
    const std::string properties = correlationData.empty() ? "" : '\x09' + text(correlationData);
    message_ = packet(publish << 4, text(topic) + variableLength(properties.size()) + properties + payload);
    toSend_ = times;
    eventfd_write(wakeup_, 1);
}

void StubbornBroker::sendAroundPingResponse(const std::string& firstTopic, const std::string& secondTopic, int times) {
    const auto message = [](const std::string& topic) { return packet(publish << 4, text(topic) + '\0'); };
    message_ = message(firstTopic) + packet(pingresp << 4, "");
    for (int count = 0; count < times; ++count) message_ += message(secondTopic);
    toSend_ = 1;
    eventfd_write(wakeup_, 1);
}

void StubbornBroker::sendAndEnd(const std::string& topic) {
    endsAfterMessage_ = true;
    message_ = packet(publish << 4, text(topic) + '\0');
    toSend_ = 1;
    eventfd_write(wakeup_, 1);
}

void StubbornBroker::hangUp() {
    hangsUp_ = true;
    eventfd_write(wakeup_, 1);
}

void StubbornBroker::takeOver() {
    takesOver_ = true;
    eventfd_write(wakeup_, 1);
}

void StubbornBroker::giveIn() {
    givesIn_ = true;
    eventfd_write(wakeup_, 1);
}

std::vector<std::string> StubbornBroker::published() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return published_;
}

void StubbornBroker::answerSubscriptions() {
    holdsSubscriptions_ = false;
    eventfd_write(wakeup_, 1);
}

void StubbornBroker::run() {
    while (!stopping_) {
        pollfd waiting[2] = {{listener_, POLLIN, 0}, {wakeup_, POLLIN, 0}};
        poll(waiting, 2, -1);
        if (waiting[0].revents == 0) continue;
        const int client = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        input_.clear();
        output_.clear();
        owed_.clear();
        subscriptions_.clear();
        subscribed_ = false;
        while (!stopping_ && talk(client)) {
        }
        close(client);
    }
}

bool StubbornBroker::talk(int client) {
    if (subscribed_ && output_.empty() && toSend_ > 0) {
        output_ = message_;
        --toSend_;
        if (endsAfterMessage_.exchange(false)) {
            // The system keeps back what more is announced for; closing the socket sends it with the end.
            ::send(client, output_.data(), output_.size(), MSG_NOSIGNAL | MSG_MORE);
            return false;
        }
    }
    pollfd waiting[2] = {{client, static_cast<short>(POLLIN | (output_.empty() ? 0 : POLLOUT)), 0},
                         {wakeup_, POLLIN, 0}};
    poll(waiting, 2, -1);
    if (waiting[1].revents != 0) {
        eventfd_t count = 0;
        eventfd_read(wakeup_, &count);
    }
    if (hangsUp_.exchange(false)) return false;
    if (takesOver_.exchange(false)) {
        const std::string goodbye = packet(disconnect << 4, std::string{static_cast<char>(sessionTakenOver), '\0'});
        ::send(client, goodbye.data(), goodbye.size(), MSG_NOSIGNAL);
        return false;
    }
    if ((waiting[0].revents & POLLOUT) != 0) {
        const ssize_t written = ::send(client, output_.data(), output_.size(), MSG_NOSIGNAL);
        if (written > 0) output_.erase(0, static_cast<std::size_t>(written));
    }
    if ((waiting[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
        char buffer[65536];
        const ssize_t size = recv(client, buffer, sizeof buffer, 0);
        if (size <= 0) return false;
        segments_ = segmentsWithData(client);
        input_.append(buffer, static_cast<std::size_t>(size));
        while (const std::size_t taken = takePacket(input_)) input_.erase(0, taken);
    }
    if (givesIn_) {
        for (const std::string& identifier : owed_) output_ += packet(puback << 4, identifier);
        owed_.clear();
    }
    owedCount_ = owed_.size();
    if (!holdsSubscriptions_) acceptSubscriptions();
    heldCount_ = subscriptions_.size();
    return true;
}

void StubbornBroker::acceptSubscriptions() {
    for (const std::string& identifier : subscriptions_) {
        output_ += packet(suback << 4, identifier + '\0' + '\1');
        if (!subscribed_) ++connections_;
        subscribed_ = true;
    }
    subscriptions_.clear();
}

/// Returns the size of the first packet in `bytes`, or 0 if it is incomplete.
std::size_t StubbornBroker::takePacket(const std::string& bytes) {
    std::size_t length = 0;
    std::size_t at = 1;
    for (std::size_t factor = 1;; factor *= 128) {
        if (at >= bytes.size()) return 0;
        const auto byte = static_cast<unsigned char>(bytes[at++]);
        length += (byte % 128U) * factor;
        if (byte < 128U) break;
    }
    if (bytes.size() < at + length) return 0;
    answer(static_cast<unsigned char>(bytes[0]), bytes.substr(at, length));
    return at + length;
}

void StubbornBroker::answer(int first, const std::string& body) {
    switch (first >> 4) {
        case connect: {
            std::string properties = property(receiveMaximumProperty, receiveMaximum_);
            if (keepAlive_ > 0) properties += property(serverKeepAliveProperty, keepAlive_);
            output_ += packet(connack << 4, std::string(2, '\0') + variableLength(properties.size()) + properties);
            break;
        }
        case subscribe:
            subscriptions_.push_back(body.substr(0, 2));
            break;
        case pingreq:
            ++pings_;
            if (!ignoresPings_) output_ += packet(pingresp << 4, "");
            break;
        case publish: {
            const auto topic = static_cast<std::size_t>(static_cast<unsigned char>(body[0])) * 256 +
                               static_cast<unsigned char>(body[1]);
            const std::lock_guard<std::mutex> lock(mutex_);
            published_.push_back(body.substr(2, topic));
            if ((first & 0x06) != 0) owed_.push_back(body.substr(2 + topic, 2));
            break;
        }
        default:
            break;
    }
}

}  // namespace fakes

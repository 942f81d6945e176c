#include "RawListener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <utility>
#include <vector>

namespace bustest {

RawListener::RawListener(std::string bytes, Then then, int port)
    : bytes_(std::move(bytes)), then_(then), wakeup_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)), port_(port) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    const int on = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (bind(listener_, generic, size) != 0 || listen(listener_, 4) != 0) throw std::runtime_error("Cannot listen");
    getsockname(listener_, generic, &size);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
}

RawListener::~RawListener() {
    eventfd_write(wakeup_, 1);
    thread_.join();
    close(listener_);
    close(wakeup_);
}

void RawListener::run() {
    std::vector<pollfd> watched{{wakeup_, POLLIN, 0}, {listener_, POLLIN, 0}};
    for (;;) {
        poll(watched.data(), watched.size(), -1);
        if (watched[0].revents != 0) break;
        if (watched[1].revents != 0) {
            watched.push_back({accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC), POLLIN, 0});
            ++connections_;
        }
        for (std::size_t each = 2; each < watched.size();) {
            const bool closesAtOnce = bytes_.empty() && then_ == Then::closes;
            char buffer[4096];
            bool done = closesAtOnce;
            if (!done && watched[each].revents != 0) {
                const bool gone = recv(watched[each].fd, buffer, sizeof buffer, 0) <= 0;
                if (!gone) send(watched[each].fd, bytes_.data(), bytes_.size(), MSG_NOSIGNAL);
                done = gone || then_ == Then::closes;
            }
            watched[each].revents = 0;
            if (done) close(watched[each].fd);
            if (done) {
                watched.erase(watched.begin() + static_cast<std::ptrdiff_t>(each));
            } else {
                ++each;
            }
        }
    }
    for (std::size_t each = 2; each < watched.size(); ++each) close(watched[each].fd);
}

}  // namespace bustest

#include "Socket.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "Mqtt.h"
#include "common/Descriptor.h"

namespace ipc {

void enableQuickAck(int socket) {
    if (socket < 0) return;
    // The value 1 would acknowledge the next packet at once too, although an answer is about to carry that
    // acknowledgement. So would 2 if there were nothing to acknowledge now.
    const int now = 2;
    setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &now, sizeof now);
}

void setCork(int socket, bool on) {
    const int value = on ? 1 : 0;
    setsockopt(socket, IPPROTO_TCP, TCP_CORK, &value, sizeof value);
}

bool hasMore(int socket) {
    int bytes = 0;
    return ioctl(socket, FIONREAD, &bytes) == 0 && bytes > 0;
}

std::optional<unsigned char> peek(int socket) {
    unsigned char next = 0;
    if (recv(socket, &next, 1, MSG_PEEK | MSG_DONTWAIT) != 1) return std::nullopt;
    return next;
}

void prepareSocket(int socket) {
    enableQuickAck(socket);
    if (socket >= 0) fcntl(socket, F_SETFD, FD_CLOEXEC);
}

std::optional<std::string> probe(const std::string& numericAddress, int port,
                                 std::chrono::steady_clock::time_point deadline, int cancel) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int result = getaddrinfo(numericAddress.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (result != 0) return std::string(gai_strerror(result));
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, &freeaddrinfo);

    const common::Descriptor tried(socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (tried.get() < 0) return systemText(errno);
    if (connect(tried.get(), found->ai_addr, found->ai_addrlen) == 0) return std::string();
    if (errno != EINPROGRESS) return systemText(errno);

    using std::chrono::milliseconds;
    const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    pollfd watched[2] = {{tried.get(), POLLOUT, 0}, {cancel, POLLIN, 0}};
    poll(watched, 2, static_cast<int>(std::max<milliseconds::rep>(left, 0)));
    if (watched[0].revents == 0 && watched[1].revents != 0) return std::nullopt;
    if (watched[0].revents == 0) return std::string("the broker does not answer");
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(tried.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    return error == 0 ? std::string() : systemText(error);
}

}  // namespace ipc

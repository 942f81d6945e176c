#include "Frame.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace unixbus {

namespace {

void appendNumber(std::string& bytes, std::size_t number) {
    const auto fixed = static_cast<std::uint32_t>(number);
    bytes.append(reinterpret_cast<const char*>(&fixed), sizeof fixed);
}

std::size_t numberAt(const std::string& bytes, std::size_t place) {
    std::uint32_t number = 0;
    std::memcpy(&number, bytes.data() + place, sizeof number);
    return number;
}

constexpr std::size_t numberSize = sizeof(std::uint32_t);

bool fill(sockaddr_un& address, const std::string& path) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.data(), path.size());
    return true;
}

}  // namespace

std::string encode(const Frame& frame) {
    std::string body;
    for (const std::string& part : frame) {
        appendNumber(body, part.size());
        body += part;
    }
    std::string bytes;
    appendNumber(bytes, body.size());
    return bytes + body;
}

bool decode(std::string& received, Frame& frame) {
    if (received.size() < numberSize) return false;
    const std::size_t end = numberSize + numberAt(received, 0);
    if (received.size() < end) return false;
    frame.clear();
    for (std::size_t place = numberSize; place + numberSize <= end;) {
        const std::size_t size = numberAt(received, place);
        frame.push_back(received.substr(place + numberSize, size));
        place += numberSize + size;
    }
    received.erase(0, end);
    return true;
}

bool flush(int socket, std::deque<std::string>& pending) {
    while (!pending.empty()) {
        std::string& first = pending.front();
        const ssize_t sent = send(socket, first.data(), first.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) return errno == EAGAIN || errno == EINTR;
        first.erase(0, static_cast<std::size_t>(sent));
        if (!first.empty()) return true;
        pending.pop_front();
    }
    return true;
}

bool receive(int socket, std::string& received) {
    char buffer[65536];
    const ssize_t size = recv(socket, buffer, sizeof buffer, MSG_DONTWAIT);
    if (size > 0) received.append(buffer, static_cast<std::size_t>(size));
    return size > 0 || (size < 0 && (errno == EAGAIN || errno == EINTR));
}

std::string pathOf(const std::string& address) {
    const std::string path = address.substr(0, address.find(':'));
    return path.find('/') == std::string::npos ? "/run/unix-bus/" + path : path;
}

int connectTo(const std::string& path) {
    sockaddr_un address;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && fill(address, path) && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        return fd;
    }
    if (fd >= 0) close(fd);
    return -1;
}

int listenAt(const std::string& path) {
    sockaddr_un address;
    unlink(path.c_str());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && fill(address, path) && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        listen(fd, 64) == 0) {
        return fd;
    }
    if (fd >= 0) close(fd);
    return -1;
}

}  // namespace unixbus

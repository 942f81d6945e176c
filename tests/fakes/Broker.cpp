#include "fakes/Broker.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

extern char** environ;

namespace fakes {

namespace {

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

const sockaddr* generic(const sockaddr_in& address) { return reinterpret_cast<const sockaddr*>(&address); }

/// A socket connected to the port, or -1.
int connectTo(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    if (fd >= 0 && connect(fd, generic(address), sizeof address) == 0) return fd;
    if (fd >= 0) close(fd);
    return -1;
}

/// A listening socket. Port 0 selects a free port, which is stored in `port`.
int listenOn(int& port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = loopback(port);
    socklen_t size = sizeof address;
    if (fd < 0 || bind(fd, generic(address), size) != 0 || listen(fd, 64) != 0) {
        throw std::runtime_error("Cannot listen on port " + std::to_string(port));
    }
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    port = ntohs(address.sin_port);
    return fd;
}

void sleepBetweenTries() { poll(nullptr, 0, 5); }

}  // namespace

int freePort() {
    int port = 0;
    close(listenOn(port));
    return port;
}

Broker::Broker(const std::string& settings) : settings_(settings) {
    char folder[] = "/tmp/broker-XXXXXX";
    if (mkdtemp(folder) == nullptr) throw std::runtime_error("Cannot make a folder for the broker");
    folder_ = folder;
    // Another process may take the port before the broker binds it.
    for (int tries = 0; tries < 10; ++tries) {
        port_ = freePort();
        if (launch()) return;
    }
    throw std::runtime_error("Cannot start a broker");
}

Broker::~Broker() {
    thaw();
    stop();
    unlink((folder_ + "/mosquitto.conf").c_str());
    rmdir(folder_.c_str());
}

bool Broker::launch() {
    const std::string configuration = folder_ + "/mosquitto.conf";
    std::ofstream(configuration) << "listener " << port_ << " 127.0.0.1\nallow_anonymous true\nmax_queued_messages 0\n"
                                 << (getuid() == 0 ? "user root\n" : "") << "log_dest none\n"
                                 << settings_;
    std::string program = "/usr/sbin/mosquitto";
    std::string option = "-c";
    std::string file = configuration;
    char* arguments[] = {program.data(), option.data(), file.data(), nullptr};

    // The broker must not inherit blocked or ignored signals.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    const int result = posix_spawn(&pid_, program.c_str(), &files, &attributes, arguments, environ);
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
    if (result != 0) throw std::runtime_error("Cannot run " + program);

    for (int tries = 0; tries < 4000; ++tries) {
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            return false;
        }
        const int fd = connectTo(port_);
        if (fd >= 0) {
            close(fd);
            return true;
        }
        sleepBetweenTries();
    }
    stop();
    return false;
}

void Broker::start() {
    if (pid_ > 0) return;
    if (!launch()) throw std::runtime_error("Cannot start the broker again on port " + std::to_string(port_));
}

void Broker::stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void Broker::freeze() {
    kill(pid_, SIGSTOP);
    int status = 0;
    waitpid(pid_, &status, WUNTRACED);
}

void Broker::thaw() {
    if (pid_ > 0) kill(pid_, SIGCONT);
}

Relay::Relay(int targetPort) : targetPort_(targetPort), wakeup_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    listener_ = listenOn(port_);
    thread_ = std::thread([this] { run(); });
}

Relay::~Relay() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    eventfd_write(wakeup_, 1);
    thread_.join();
    cut();
    close(listener_);
    close(wakeup_);
}

void Relay::cut() {
    const std::lock_guard<std::mutex> lock(mutex_);
    refusing_ = true;
    for (const Pair& pair : pairs_) drop(pair);
    pairs_.clear();
    eventfd_write(wakeup_, 1);
}

void Relay::restore() {
    const std::lock_guard<std::mutex> lock(mutex_);
    refusing_ = false;
}

void Relay::drop(const Pair& pair) {
    // shutdown() works even while the relay's thread polls the sockets.
    for (const int fd : {pair.client, pair.broker}) {
        shutdown(fd, SHUT_RDWR);
        close(fd);
    }
}

void Relay::run() {
    for (;;) {
        std::vector<pollfd> watched{{wakeup_, POLLIN, 0}};
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) return;
            watched.push_back({listener_, POLLIN, 0});
            for (const Pair& pair : pairs_) {
                watched.push_back({pair.client, POLLIN, 0});
                watched.push_back({pair.broker, POLLIN, 0});
            }
        }
        poll(watched.data(), watched.size(), -1);
        eventfd_t count = 0;
        eventfd_read(wakeup_, &count);

        const std::lock_guard<std::mutex> lock(mutex_);
        const auto readable = [&watched](int fd) {
            return std::any_of(watched.begin(), watched.end(),
                               [fd](const pollfd& each) { return each.fd == fd && each.revents != 0; });
        };
        const auto relay = [](int from, int to) {
            char buffer[65536];
            const ssize_t size = recv(from, buffer, sizeof buffer, MSG_DONTWAIT);
            if (size < 0) return errno == EAGAIN;
            return size > 0 && send(to, buffer, static_cast<size_t>(size), MSG_NOSIGNAL) == size;
        };
        for (auto pair = pairs_.begin(); pair != pairs_.end();) {
            const bool open = (!readable(pair->client) || relay(pair->client, pair->broker)) &&
                              (!readable(pair->broker) || relay(pair->broker, pair->client));
            if (!open) drop(*pair);
            pair = open ? pair + 1 : pairs_.erase(pair);
        }
        if (readable(listener_)) {
            const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            const int broker = client >= 0 && !refusing_ ? connectTo(targetPort_) : -1;
            if (broker >= 0) {
                pairs_.push_back({client, broker});
                ++connections_;
            } else if (client >= 0) {
                close(client);
            }
        }
    }
}

}  // namespace fakes

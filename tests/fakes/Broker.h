// A real broker of its own for a test: mosquitto on a free port of 127.0.0.1, and a relay that can cut what runs
// through it.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace fakes {

/// A port of 127.0.0.1 that was free just now.
int freePort();

/// Starts with the constructor, ends with the destructor. Every operation returns once it is in effect, and throws
/// std::runtime_error when it cannot be.
class Broker {
 public:
    /// `settings` are further lines of mosquitto's configuration, such as "set_tcp_nodelay true\n".
    explicit Broker(const std::string& settings = "");
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;
    ~Broker();

    int port() const { return port_; }
    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

    /// Ends the process; `start` brings a new one up on the same port, without anything the old one knew.
    void stop();
    void start();

    /// Holds the process, as a machine out of breath would.
    void freeze();
    void thaw();

 private:
    bool launch();

    int port_ = 0;
    std::string settings_;
    std::string folder_;
    pid_t pid_ = -1;
};

/// Relays one port to the broker's, so that a connection can be cut while the broker lives.
class Relay {
 public:
    explicit Relay(int targetPort);
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;
    ~Relay();

    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

    /// Drops every connection, and every new one at once until `restore`.
    void cut();
    void restore();

    /// Connections that were relayed so far.
    int connections() const { return connections_; }

 private:
    struct Pair {
        int client;
        int broker;
    };
    void run();
    static void drop(const Pair& pair);

    const int targetPort_;
    int port_ = 0;
    int listener_ = -1;
    int wakeup_ = -1;
    std::atomic<int> connections_{0};
    std::mutex mutex_;
    // Guarded by mutex_.
    bool refusing_ = false;
    std::vector<Pair> pairs_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace fakes

// A private mosquitto on a free port of 127.0.0.1, and a relay that can cut connections to it.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace fakes {

/// A port of 127.0.0.1 that was free when this was called.
int freePort();

/// The constructor starts the broker, the destructor stops it. Each operation returns once it has taken effect; on
/// failure it throws std::runtime_error.
class Broker {
 public:
    /// `settings` are additional lines of mosquitto's configuration, such as "set_tcp_nodelay true\n".
    explicit Broker(const std::string& settings = "");
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;
    ~Broker();

    int port() const { return port_; }
    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

    /// Ends the process; `start` runs a new one on the same port, without the state of the old one.
    void stop();
    void start();

    /// Suspends the process, as on an overloaded machine.
    void freeze();
    void thaw();

 private:
    bool launch();

    int port_ = 0;
    std::string settings_;
    std::string folder_;
    pid_t pid_ = -1;
};

/// Forwards a port to the broker's, so that a test can cut connections while the broker runs.
class Relay {
 public:
    explicit Relay(int targetPort);
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;
    ~Relay();

    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

    /// Closes every connection, and each new one at once until `restore`.
    void cut();
    void restore();

    /// The number of connections forwarded so far.
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

// A listener on the broker's port that is not a broker: it sends the same bytes on each connection, then keeps it open
// or closes it.
#pragma once

#include <atomic>
#include <string>
#include <thread>

namespace bustest {

class RawListener {
 public:
    enum class Then { closes, stays };

    /// Sends `bytes` once the peer has sent something. If `bytes` is empty and `then` is `closes`, connections are
    /// closed at once. Port 0 is a free one.
    explicit RawListener(std::string bytes, Then then = Then::closes, int port = 0);
    RawListener(const RawListener&) = delete;
    RawListener& operator=(const RawListener&) = delete;
    ~RawListener();

    int connections() const { return connections_; }
    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

 private:
    void run();

    const std::string bytes_;
    const Then then_;
    const int wakeup_;
    int listener_ = -1;
    int port_;
    std::atomic<int> connections_{0};
    std::thread thread_;
};

}  // namespace bustest

// What listens on the broker's port without being one: each connection gets the same bytes, and then stays or ends.
#pragma once

#include <atomic>
#include <string>
#include <thread>

namespace bustest {

class RawListener {
 public:
    enum class Then { closes, stays };

    /// `bytes` are sent once the peer has said something. With none and `closes`, a connection ends as it begins. Port
    /// 0 is a free one.
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

// The connection of a client or a service to the bus: connects again by itself, reads and writes on one thread.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "Frame.h"

namespace unixbus {

/// All are called on the link's thread.
class LinkListener {
 public:
    virtual ~LinkListener() = default;
    /// There is a connection. Call `begin`, then send what the bus must know.
    virtual void linkUp() = 0;
    virtual void linkDown() = 0;
    virtual void frameArrived(Frame& frame) = 0;
    /// After everything that could be read was read; also before each attempt to connect, and every 10 s.
    virtual void roundEnded() {}
};

class Link {
 public:
    Link(std::string name, std::string willTopic, LinkListener& listener);
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;
    ~Link() { close(); }

    /// Starts the thread. Returns false if the first attempt to connect fails; with `keepTrying` it does not wait for
    /// that.
    bool open(const std::string& address, bool keepTrying);

    /// In LinkListener::linkUp: from now on `send` sends. Other threads must not get between this and what follows.
    void begin();

    /// Never blocks. Frames go out in this order; they are dropped while there is no connection.
    void send(const Frame& frame);

    /// Sends what is pending, for at most a second, and ends the thread.
    void close();

 private:
    void run();
    void serve(int socket);
    void wake() const;
    void pause(std::chrono::milliseconds time) const;

    const std::string name_;
    const std::string willTopic_;
    LinkListener& listener_;
    std::string path_;  // constant once open
    int wakeup_ = -1;
    std::atomic<bool> stopping_{false};

    std::mutex mutex_;
    // Guarded by mutex_.
    bool up_ = false;
    std::deque<std::string> pending_;
    int socket_ = -1;  // the first connection, made by `open`
    std::thread thread_;
};

}  // namespace unixbus

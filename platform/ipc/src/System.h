// Calls of the system that libmosquitto does not cover: threads, wake-ups, host names, sockets.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/Descriptor.h"
#include "ipc/Address.h"

namespace ipc {

/// A new thread with every signal blocked, as the program chooses its own threads for signals. `name` must be a literal
/// of at most 15 characters. Throws IPCException if the system cannot start one.
std::thread startThread(const char* name, std::function<void()> body);

/// Wakes a thread that polls descriptors. Any thread may wake; the polling thread drains.
class Waker {
 public:
    /// Throws IPCException if the system has no free descriptor.
    Waker();

    /// Readable between `wake` and `drain`.
    int descriptor() const { return event_.get(); }
    void wake() const;
    void drain() const;

 private:
    const common::Descriptor event_;
};

/// Waits for a socket or a Waker. Several objects can watch one socket: an event wakes only the first of them, in the
/// order of `watch`, on which a thread waits. Only that one is told of it. One thread at a time may wait.
class SocketWait {
 public:
    /// Throws IPCException if the system has no free descriptor.
    explicit SocketWait(const Waker& waker);

    /// From now on waits for these events of the socket (POLLIN, POLLOUT), until it is closed. Returns false if the
    /// system has no memory or watches left; the next call tries again.
    [[nodiscard]] bool watch(int socket, short events);
    /// The socket was closed; another one may have its number.
    void closed() { isWatched_ = false; }
    /// The next `watch` begins anew, so that this object is told of all present events.
    void unwatch();
    /// Returns the socket's events; 0 once it is time, or after a `wake`, which it drains, and now and then for no
    /// reason. What is watched may change meanwhile.
    short wait(std::chrono::steady_clock::time_point until);
    /// Returns the events of which this object was told and which the socket still has, without waiting.
    short ready() const;
    /// As `wait`, for after a `watch` that failed, on the thread that called it. It shares no events.
    short poll(std::chrono::steady_clock::time_point until) const;

 private:
    void setTimer(std::chrono::steady_clock::time_point until);

    const Waker& waker_;
    const common::Descriptor epoll_;
    const common::Descriptor timer_;
    std::optional<std::chrono::steady_clock::time_point> timerEnd_;  // of the thread that waits
    int socket_ = -1;
    short events_ = 0;
    bool isWatched_ = false;
};

/// The numeric addresses of the host, in the order to try. If it has none, the result is empty and `failure` is set.
/// "localhost" is this machine, whatever the name services say.
std::vector<std::string> resolve(const Address& address, std::string& failure);

/// Connects to a numeric address and closes the connection. Returns an empty text if it succeeded, else the reason;
/// nothing if `cancel` became readable first.
std::optional<std::string> probe(const std::string& numericAddress, int port,
                                 std::chrono::steady_clock::time_point deadline, int cancel);

}  // namespace ipc

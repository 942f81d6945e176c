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

/// A new thread with every signal blocked, as the program chooses its own threads for signals. `name` has at most 15
/// characters. Throws IPCException if the system cannot start one.
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

/// The numeric addresses of the host, in the order to try. If it has none, the result is empty and `failure` is set.
std::vector<std::string> resolve(const Address& address, std::string& failure);

/// Connects to a numeric address and closes the connection. Returns an empty text if it succeeded, else the reason;
/// nothing if `cancel` became readable first.
std::optional<std::string> probe(const std::string& numericAddress, int port,
                                 std::chrono::steady_clock::time_point deadline, int cancel);

}  // namespace ipc

// Tells systemd what a unit of Type=notify with WatchdogSec= reports: that the service answers requests, that it is
// still running, that it stops. Without NOTIFY_SOCKET in the environment nothing is sent.
//
// Threads: all functions may be called from any thread; none of them blocks or throws. The first failure is logged.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <chrono>
#include <string>

#include "common/Descriptor.h"

namespace propertyservice {

class SystemdNotifier {
 public:
    /// The longest time between two calls of `alive`: WatchdogSec= must be longer.
    static constexpr std::chrono::seconds leastWatchdog{60};

    /// Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID.
    SystemdNotifier();

    void ready() { send("READY=1"); }
    void stopping() { send("STOPPING=1"); }
    /// To be called by the thread that answers requests. Sends at most ten messages in the watchdog's time.
    void alive();

 private:
    using Clock = std::chrono::steady_clock;

    void connect(const std::string& address);
    void readWatchdog();
    void send(const std::string& state);
    void fail(const std::string& reason);

    common::Descriptor socket_;
    sockaddr_un address_{};
    socklen_t addressLength_ = 0;
    std::chrono::microseconds pause_{0};  // between two messages of `alive`; 0: no watchdog
    std::atomic<Clock::duration> nextAlive_{Clock::duration::min()};
    std::atomic<bool> failed_{false};
};

}  // namespace propertyservice

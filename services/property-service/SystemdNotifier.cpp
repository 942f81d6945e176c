#include "SystemdNotifier.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <system_error>

#include "debug/Debug.h"

namespace propertyservice {

namespace {

// The environment is never changed.
std::string environment(const char* name) {
    const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): see above
    return value == nullptr ? "" : value;
}

}  // namespace

SystemdNotifier::SystemdNotifier() {
    const std::string address = environment("NOTIFY_SOCKET");
    if (address.empty()) return;
    connect(address);
    readWatchdog();
}

/// A path, or "@" and an abstract name. The socket is not connected: systemd may replace its own.
void SystemdNotifier::connect(const std::string& address) {
    if ((address[0] != '/' && address[0] != '@') || address.size() >= sizeof(address_.sun_path)) {
        fail("NOTIFY_SOCKET is neither a path nor an abstract name");
        return;
    }
    address_.sun_family = AF_UNIX;
    std::copy(address.begin(), address.end(), address_.sun_path);
    if (address[0] == '@') address_.sun_path[0] = '\0';
    addressLength_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size());
    socket_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (socket_.get() < 0) fail(std::generic_category().message(errno));
}

void SystemdNotifier::readWatchdog() {
    const std::string period = environment("WATCHDOG_USEC");
    const std::string process = environment("WATCHDOG_PID");
    if (period.empty() || (!process.empty() && process != std::to_string(::getpid()))) return;
    const std::chrono::microseconds time(std::strtoll(period.c_str(), nullptr, 10));
    if (time.count() <= 0) return;
    pause_ = std::max(time / 10, std::chrono::microseconds(1));
    if (time >= leastWatchdog) return;
    dbg::Debug::warning() << "WatchdogSec= is less than " << leastWatchdog.count()
                          << " s: an idle service may be taken for one that hangs" << std::endl;
}

void SystemdNotifier::alive() {
    if (pause_.count() == 0) return;
    const auto now = Clock::now().time_since_epoch();
    if (now < nextAlive_.load(std::memory_order_relaxed)) return;
    nextAlive_.store(now + pause_, std::memory_order_relaxed);
    send("WATCHDOG=1");
}

void SystemdNotifier::send(const std::string& state) {
    if (socket_.get() < 0) return;
    const auto* const address = reinterpret_cast<const sockaddr*>(&address_);
    if (::sendto(socket_.get(), state.data(), state.size(), MSG_NOSIGNAL, address, addressLength_) < 0) {
        fail(std::generic_category().message(errno));
    }
}

void SystemdNotifier::fail(const std::string& reason) {
    if (!failed_.exchange(true)) dbg::Debug::warning() << "Cannot notify systemd: " << reason << std::endl;
}

}  // namespace propertyservice

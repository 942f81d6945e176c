// The bus under test, which the kit starts, kills and suspends with the commands from its options. An object starts it
// without the state of an earlier one, and the destructor kills it; there is one at a time. Each operation returns once
// it has taken effect, and throws std::runtime_error on failure.
#pragma once

#include <string>

#include "Program.h"

namespace conformance {

class Bus {
 public:
    Bus();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;
    ~Bus();

    static const std::string& address();
    /// Of an address on TCP.
    static int port();

    void stop();
    void start();
    /// Suspends the bus: connections stay open, and nothing is answered.
    void freeze() const;
    void thaw() const;

 private:
    Program program_;
};

}  // namespace conformance

// For the first lines of a check, which is skipped where it cannot run.
#define NEEDS_TCP() \
    if (!conformance::settings().isTcp) GTEST_SKIP() << "cuts connections: needs --tcp"
#define NEEDS_FREEZING() \
    if (!conformance::settings().stopBus.empty()) GTEST_SKIP() << "suspends the bus: needs it in the foreground"
#define NEEDS_REQUESTS() \
    if (!conformance::settings().hasRequests) GTEST_SKIP() << "makes requests: left out by --no-requests"

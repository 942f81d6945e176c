// Signals in ordinary context: the signals of interest are blocked in every thread and received by one thread of
// this library, which calls the handlers. A handler may therefore lock, allocate and log.
#pragma once

#include <memory>

namespace common::signal {

/// Ends and joins the receiving thread when destroyed; signals that come later stay blocked and do nothing.
class Reception {
 public:
    virtual ~Reception() = default;
};

/// Call first in `main`, before any other thread exists: SIGPIPE is ignored from here on, and
/// SIGCHLD has its default effect. Keep the result until the end of `main`.
[[nodiscard]] std::unique_ptr<Reception> registerHandler();

/// From now on `handler` is called with `signal` on the receiving thread each time the signal comes. To be called
/// from the thread that called registerHandler, before any other thread is started.
/// Throws std::system_error if the signal cannot be blocked or the thread not be started.
void registerCustomHandler(int signal, void (*handler)(int));

}  // namespace common::signal

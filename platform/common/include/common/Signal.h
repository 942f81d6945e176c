// Signal handlers that run on an ordinary thread: the handled signals are blocked in all threads, and one thread of
// this library receives them with sigwait and calls the handlers. Handlers may therefore lock, allocate and log.
#pragma once

#include <signal.h>

#include <memory>

namespace common::signal {

/// Stops and joins the receiving thread when destroyed. The handled signals stay blocked.
class SignalReceiver {
 public:
    virtual ~SignalReceiver() = default;
};

/// Prepares the process for handlers: ignores SIGPIPE, and sets SIGCHLD to its default action. Call first in `main`,
/// before any thread is started, and keep the result until the end of `main`. Throws std::system_error if a signal
/// cannot be blocked.
[[nodiscard]] std::unique_ptr<SignalReceiver> registerHandler();

/// Calls `handler(signal)` on the receiving thread whenever `signal` arrives. Call on the thread that called
/// registerHandler, before any other thread is started.
/// Throws std::system_error without registerHandler, or if the signal cannot be blocked or the thread not be started.
void registerCustomHandler(int signal, void (*handler)(int));

/// While it exists, every signal is blocked on its thread, and stays so on the threads started meanwhile.
class AllBlocked {
 public:
    AllBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    AllBlocked(const AllBlocked&) = delete;
    AllBlocked& operator=(const AllBlocked&) = delete;
    ~AllBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
    sigset_t before_;
};

}  // namespace common::signal

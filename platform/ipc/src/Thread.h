// Starts the threads of this library: named, and with every signal blocked, as the program chooses its own threads for
// signals.
#pragma once

#include <functional>
#include <thread>

namespace ipc {

/// `name` has at most 15 characters. Throws IPCException if the system cannot start a thread.
std::thread startThread(const char* name, std::function<void()> body);

}  // namespace ipc

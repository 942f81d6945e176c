// Starts the threads of this library: named, and with every signal blocked, so that signals go to the threads which
// the program has chosen for them.
#pragma once

#include <functional>
#include <thread>

namespace ipc {

/// `name` has 15 characters at most. Throws IPCException when the system has no thread left.
std::thread startThread(const char* name, std::function<void()> body);

}  // namespace ipc

// Socket calls that libmosquitto does not cover.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace ipc {

/// Acknowledges what came in and was not acknowledged by an answer: to be repeated after each read. A broker that has
/// Nagle's algorithm on holds its next packet back until the last one is acknowledged, which costs 40 ms.
void acknowledgeAtOnce(int socket);

/// While `on`, what is written leaves in full segments only; what is left then leaves in one when that ends.
void setCork(int socket, bool on);

/// Whether something can be read without waiting.
bool hasMore(int socket);

/// The next byte, which stays to be read; nothing if none has come.
std::optional<unsigned char> peek(int socket);

/// What libmosquitto leaves to do on a new socket: the above, and that no program we start inherits it.
void prepareSocket(int socket);

/// Connects to a numeric address and closes again. Returns why it failed; an empty text: something listens there;
/// nothing: `cancel` became readable first.
std::optional<std::string> probe(const std::string& numericAddress, int port,
                                 std::chrono::steady_clock::time_point deadline, int cancel);

}  // namespace ipc

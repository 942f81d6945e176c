// Socket calls that libmosquitto does not cover.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace ipc {

/// Sends a delayed TCP acknowledgement now; repeat it after each read. A broker with Nagle's algorithm on holds its
/// next packet back until the last one is acknowledged, which costs 40 ms.
void enableQuickAck(int socket);

/// While `on`, only full TCP segments are sent; switching it off sends the rest.
void setCork(int socket, bool on);

/// Whether there is data to read.
bool hasMore(int socket);

/// The next byte without consuming it; nothing if there is none.
std::optional<unsigned char> peek(int socket);

/// Sets up a new socket of libmosquitto's: enables quick acknowledgements and close-on-exec.
void prepareSocket(int socket);

/// Connects to a numeric address and closes the connection. Returns an empty text if it succeeded, else the reason;
/// nothing if `cancel` became readable first.
std::optional<std::string> probe(const std::string& numericAddress, int port,
                                 std::chrono::steady_clock::time_point deadline, int cancel);

}  // namespace ipc

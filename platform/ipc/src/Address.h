// Where the broker is: "host", "host:port", "[v6]:port", resolved to the numeric addresses to try in turn.
#pragma once

#include <string>
#include <vector>

namespace ipc {

struct Address {
    std::string host;
    int port = 1883;
};

/// Throws IPCException when the text has no host or a bad port.
Address parseAddress(const std::string& text);

/// The numeric addresses of the host, in the order to try; empty, and `failure` filled, when it has none.
std::vector<std::string> resolve(const Address& address, std::string& failure);

}  // namespace ipc

// Parses a broker address: HOST, HOST:PORT, an IPv6 address, or [IPV6]:PORT. Pure functions.
#pragma once

#include <string>

namespace ipc {

struct Address {
    std::string host;
    int port = 1883;
    bool hasPort = false;  // false: the port is the default
};

/// Throws IPCException with the text and the reason if the address is invalid.
Address parseAddress(const std::string& text);

/// What parseAddress would throw, as a text; empty if the address is valid.
std::string addressError(const std::string& text);

}  // namespace ipc

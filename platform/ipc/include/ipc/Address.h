// Where the broker is, as a person writes it: HOST, HOST:PORT, an IPv6 address, or [IPV6]:PORT. Pure functions.
#pragma once

#include <string>

namespace ipc {

struct Address {
    std::string host;
    int port = 1883;
    bool hasPort = false;  // the port was written, not assumed
};

/// Throws IPCException that names the text and what is wrong with it.
Address parseAddress(const std::string& text);

}  // namespace ipc

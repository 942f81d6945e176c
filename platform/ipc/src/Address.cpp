#include "ipc/Address.h"

#include <charconv>

#include "ipc/IPCException.h"

namespace ipc {

namespace {

[[noreturn]] void refuse(const std::string& text, const char* reason) {
    throw IPCException("\"" + text + "\" is not a broker's address: " + reason);
}

int parsePort(const std::string& text, const std::string& port) {
    int number = 0;
    const char* const end = port.data() + port.size();
    const auto [rest, error] = std::from_chars(port.data(), end, number);
    if (error != std::errc() || rest != end || number < 1 || number > 65535) {
        refuse(text, "the port must be a number from 1 to 65535");
    }
    return number;
}

}  // namespace

Address parseAddress(const std::string& text) {
    Address address;
    std::string port;
    if (!text.empty() && text.front() == '[') {
        const size_t end = text.find(']');
        if (end == std::string::npos) refuse(text, "the closing bracket is missing");
        address.host = text.substr(1, end - 1);
        const std::string rest = text.substr(end + 1);
        address.hasPort = !rest.empty();
        if (address.hasPort && rest.front() != ':') refuse(text, "only :PORT may follow the bracket");
        if (address.hasPort) port = rest.substr(1);
    } else {
        const size_t colon = text.find(':');
        // More than one colon without brackets is an IPv6 address without a port.
        address.hasPort = colon != std::string::npos && text.find(':', colon + 1) == std::string::npos;
        address.host = address.hasPort ? text.substr(0, colon) : text;
        if (address.hasPort) port = text.substr(colon + 1);
    }
    if (address.host.empty()) refuse(text, "the host is missing");
    if (address.hasPort) address.port = parsePort(text, port);
    return address;
}

std::string addressError(const std::string& text) {
    try {
        parseAddress(text);
        return {};
    } catch (const IPCException& error) {
        return error.what();
    }
}

}  // namespace ipc

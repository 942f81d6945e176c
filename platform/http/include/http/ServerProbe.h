// Connects to a server as a download does, without a request.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "http/UrlInfo.h"
#include "security/Security.h"

namespace zav {

struct ServerProbe {
    enum class Step { nameLookup, connection, tls, none };

    Step failed = Step::none;
    std::string reason;   // why the step failed
    std::string address;  // of the server; empty if there was no connection
    /// When the first certificate of the server's chain expires; nothing without TLS.
    std::optional<std::chrono::system_clock::time_point> expires;
};

/// Looks up the host, connects, and performs the TLS handshake if the URL is https, verified as for a download. Blocks
/// for at most `timeout`. Throws std::bad_alloc.
ServerProbe probeServer(const UrlInfo& url, const Security& security, std::chrono::seconds timeout);

}  // namespace zav

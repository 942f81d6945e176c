// Timeouts and clocks of an HTTP client. Only tests change the defaults.
#pragma once

#include <chrono>
#include <functional>

namespace zav {

struct CurlSettings {
    std::chrono::seconds connectTimeout{30};  // name lookup, TCP and TLS handshake together
    std::chrono::seconds stallTimeout{120};   // without receiving a byte of the body

    // Called on the transferring thread.
    std::function<std::chrono::steady_clock::time_point()> steadyNow = &std::chrono::steady_clock::now;
    std::function<std::chrono::system_clock::time_point()> systemNow = &std::chrono::system_clock::now;
};

}  // namespace zav

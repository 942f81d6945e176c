// Time limits and clocks of an HTTP client. The defaults are the product's; tests set shorter limits and own clocks.
#pragma once

#include <chrono>
#include <functional>

namespace zav {

struct CurlSettings {
    std::chrono::seconds connectTimeout{30};  // name lookup, TCP and TLS handshake together
    std::chrono::seconds stallTimeout{120};   // without a byte of the body

    // Called on the transferring thread. The first measures durations, the second tells the date.
    std::function<std::chrono::steady_clock::time_point()> steadyNow = &std::chrono::steady_clock::now;
    std::function<std::chrono::system_clock::time_point()> systemNow = &std::chrono::system_clock::now;
};

}  // namespace zav

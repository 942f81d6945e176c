// The date of this release, and dates as text. A system clock that shows an earlier date has not been set.
#pragma once

#include <chrono>
#include <string>

namespace common {

constexpr std::chrono::system_clock::time_point releaseDate{std::chrono::seconds{1795305600}};  // 2026-11-22, UTC

/// "YYYY-MM-DD", UTC. Any thread.
std::string dateText(std::chrono::system_clock::time_point time);

}  // namespace common

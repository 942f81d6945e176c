// The date of this release. A system clock that shows an earlier date has not been set.
#pragma once

#include <chrono>

namespace common {

constexpr std::chrono::system_clock::time_point releaseDate{std::chrono::seconds{1795305600}};  // 2026-11-22, UTC

}  // namespace common

// The minimum speed of a download.
#pragma once

#include <chrono>
#include <cstdint>

namespace zav {

/// Whether a download that has received `bytes` after `elapsed` may continue. The stall timeout does not end a transfer
/// of a byte now and then, so all attempts of a download together must receive 1 KiB per second, not counting the first
/// five minutes. Any line that a phone is used on is faster.
inline bool keepsPace(std::chrono::steady_clock::duration elapsed, std::int64_t bytes) {
    constexpr std::int64_t minBytesPerSecond = 1024;
    constexpr std::chrono::seconds allowance{300};
    return elapsed <= allowance + std::chrono::seconds(bytes / minBytesPerSecond);
}

}  // namespace zav

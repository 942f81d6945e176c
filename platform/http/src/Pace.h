// How slow a transfer may be.
#pragma once

#include <chrono>
#include <cstdint>

namespace zav {

/// Whether a download that has `bytes` after this time may go on. A server that keeps dripping never stalls, so the
/// download as a whole, with all its attempts, must bring 1 KiB a second, with five minutes in hand: slower than any
/// line that a phone is put on, and a small file still ends within minutes, whatever the server does.
inline bool keepsPace(std::chrono::steady_clock::duration elapsed, std::int64_t bytes) {
    constexpr std::int64_t slowestBytesPerSecond = 1024;
    constexpr std::chrono::seconds timeInHand{300};
    return elapsed <= timeInHand + std::chrono::seconds(bytes / slowestBytesPerSecond);
}

}  // namespace zav

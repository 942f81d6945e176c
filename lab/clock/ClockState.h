#pragma once

#include <atomic>
#include <cstdint>

namespace lab {

// The phone's clock as the controlling tool leaves it and the preloaded library reads it: one page of a file that
// both map. A writer makes `sequence` odd, changes the rest and makes it even again; a reader that saw an odd or a
// changed sequence reads once more. All times are nanoseconds; "real" is the machine's CLOCK_MONOTONIC.
struct ClockState {
    static constexpr std::uint32_t Magic = 0x70636c31;

    std::atomic<std::uint32_t> magic;
    std::atomic<std::uint32_t> sequence;
    std::atomic<std::int64_t> realBase;    // real time since which the factor holds
    std::atomic<std::int64_t> phoneBase;   // what the phone's monotonic clock showed at realBase
    std::atomic<std::int64_t> wallOffset;  // what the phone's date is ahead by, jumps of both clocks not counted
    std::atomic<double> factor;            // phone seconds in a real second
};
static_assert(std::atomic<double>::is_always_lock_free && std::atomic<std::int64_t>::is_always_lock_free);

// One consistent reading of the state, and the arithmetic on it.
struct ClockReading {
    std::int64_t realBase = 0;
    std::int64_t phoneBase = 0;
    std::int64_t wallOffset = 0;
    double factor = 1;

    static ClockReading of(const ClockState& state) {
        for (;;) {
            const std::uint32_t before = state.sequence.load(std::memory_order_acquire);
            ClockReading reading;
            reading.realBase = state.realBase.load(std::memory_order_acquire);
            reading.phoneBase = state.phoneBase.load(std::memory_order_acquire);
            reading.wallOffset = state.wallOffset.load(std::memory_order_acquire);
            reading.factor = state.factor.load(std::memory_order_acquire);
            if (before % 2 == 0 && state.sequence.load(std::memory_order_acquire) == before) return reading;
        }
    }

    std::int64_t monotonic(std::int64_t real) const {
        const std::int64_t passed = real - realBase;
        // At factor 1 no nanosecond may be lost to the detour over a floating-point number.
        return phoneBase + (factor == 1.0 ? passed : static_cast<std::int64_t>(static_cast<double>(passed) * factor));
    }

    std::int64_t wall(std::int64_t realWall, std::int64_t real) const {
        return realWall + (monotonic(real) - real) + wallOffset;
    }
};

}  // namespace lab

#pragma once

#include <atomic>
#include <cstdint>

namespace lab {

// State of the phone's clock, in a file that the tool (writer) and the preload library (reader) map. A seqlock: the
// writer makes `sequence` odd, changes the other members and makes it even again; the reader retries if it saw an odd
// or a changed sequence. All times are in nanoseconds; "real" is the machine's CLOCK_MONOTONIC.
struct ClockState {
    static constexpr std::uint32_t Magic = 0x70636c31;

    std::atomic<std::uint32_t> magic;
    std::atomic<std::uint32_t> sequence;
    std::atomic<std::int64_t> realBase;    // real time at which the factor was set
    std::atomic<std::int64_t> phoneBase;   // the phone's monotonic clock at realBase
    std::atomic<std::int64_t> wallOffset;  // how far the phone's date is ahead, jumps excluded
    std::atomic<double> factor;            // phone seconds per real second
};
static_assert(std::atomic<double>::is_always_lock_free && std::atomic<std::int64_t>::is_always_lock_free);

// A consistent copy of the state, and the conversions that use it.
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
        // At factor 1, avoid the rounding of a floating-point number.
        return phoneBase + (factor == 1.0 ? passed : static_cast<std::int64_t>(static_cast<double>(passed) * factor));
    }

    std::int64_t wall(std::int64_t realWall, std::int64_t real) const {
        return realWall + (monotonic(real) - real) + wallOffset;
    }
};

}  // namespace lab

// Byte counts of large files for progress callbacks, whose `long` has 32 bits on some phones.
#pragma once

#include <cstdint>
#include <limits>

namespace zav {

/// `bytes`, counted from 0 again past the maximum of `Integer`. A callback takes an unchanged count for a stalled
/// transfer, so the count must not stay at the maximum.
template <typename Integer>
Integer wrappedCount(std::int64_t bytes) {
    constexpr auto maximum = static_cast<std::uint64_t>(std::numeric_limits<Integer>::max());
    return static_cast<Integer>(static_cast<std::uint64_t>(bytes) & maximum);
}

}  // namespace zav

// Time of the nightly provisioning: a fixed offset after local midnight. Pure functions.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace zav {

/// A number in [first, last], uniformly distributed over seed texts: std::seed_seq of the characters seeds
/// std::minstd_rand0, whose values are divided into equal buckets; values beyond the last full bucket are drawn again.
/// Does not use std::uniform_int_distribution, whose results differ between standard libraries.
std::uint32_t drawNightOffset(const std::string& seedText, std::uint32_t first, std::uint32_t last);

/// 13995 s (03:53:15) on every phone: the seed is the name of the MAC address property, not its value.
std::chrono::seconds nightOffset();

/// Local midnight at the start of today plus the offset, or exactly 24 h later if that is before `now`.
std::chrono::system_clock::time_point nextNight(std::chrono::system_clock::time_point now, std::chrono::seconds offset);

}  // namespace zav

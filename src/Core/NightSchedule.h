// When the nightly provisioning falls: a fixed time after local midnight. Pure functions.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace zav {

/// Seconds after midnight for a seed text, evenly in [first, last]: the ISO seed sequence of its characters seeds the
/// minimal-standard generator, whose values are scaled down by buckets, those outside the last whole one drawn again.
/// Written out here, because standard libraries may distribute differently.
std::uint32_t drawNightOffset(const std::string& seedText, std::uint32_t first, std::uint32_t last);

/// 13995 s, 03:53:15, on every device and day: the seed is the name of the MAC address property, not its value.
std::chrono::seconds nightOffset();

/// Local midnight at the start of today plus the offset, or exactly 24 h later when that lies before `now`.
std::chrono::system_clock::time_point nextNight(std::chrono::system_clock::time_point now, std::chrono::seconds offset);

}  // namespace zav

#include "Core/NightSchedule.h"

#include <ctime>
#include <random>
#include <vector>

#include "Core/Constants.h"

namespace zav {

namespace {

constexpr std::uint32_t earliest = 3600;
constexpr std::uint32_t latest = 14400;

}  // namespace

std::uint32_t drawNightOffset(const std::string& seedText, std::uint32_t first, std::uint32_t last) {
    std::vector<std::uint32_t> characters;
    for (const char c : seedText) characters.push_back(static_cast<unsigned char>(c));
    std::seed_seq seed(characters.begin(), characters.end());
    std::minstd_rand0 generator(seed);  // multiplier 16807, modulus 2147483647, no increment

    constexpr std::uint32_t generated = std::minstd_rand0::max() - std::minstd_rand0::min();
    const std::uint32_t wanted = last - first + 1;
    const std::uint32_t bucket = generated / wanted;
    const std::uint32_t usable = wanted * bucket;
    std::uint32_t value = 0;
    do {
        value = static_cast<std::uint32_t>(generator() - std::minstd_rand0::min());
    } while (value >= usable);
    return first + value / bucket;
}

std::chrono::seconds nightOffset() {
    return std::chrono::seconds(drawNightOffset(constants.macAddressKey, earliest, latest));
}

std::chrono::system_clock::time_point nextNight(std::chrono::system_clock::time_point now,
                                                std::chrono::seconds offset) {
    using std::chrono::system_clock;
    const std::time_t seconds = system_clock::to_time_t(now);
    tzset();  // localtime_r need not re-read the time zone
    std::tm midnight{};
    localtime_r(&seconds, &midnight);
    midnight.tm_sec = 0;
    midnight.tm_min = 0;
    midnight.tm_hour = 0;
    const auto next = system_clock::from_time_t(std::mktime(&midnight)) + offset;
    return next < now ? next + std::chrono::hours(24) : next;
}

}  // namespace zav

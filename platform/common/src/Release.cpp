#include "common/Release.h"

#include <array>
#include <ctime>

namespace common {

std::string dateText(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts{};
    std::array<char, 32> text{};
    ::gmtime_r(&seconds, &parts);
    std::strftime(text.data(), text.size(), "%Y-%m-%d", &parts);
    return text.data();
}

}  // namespace common

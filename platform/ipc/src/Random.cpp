#include "Random.h"

#include <random>

namespace ipc {

std::uint64_t random64() {
    std::random_device source;
    return (static_cast<std::uint64_t>(source()) << 32U) | source();
}

std::string randomText() {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (std::uint64_t bits = random64(); text.size() < 16; bits >>= 4U) text += digits[bits & 15U];
    return text;
}

}  // namespace ipc

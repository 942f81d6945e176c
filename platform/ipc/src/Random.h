// Random numbers that distinguish clients and requests; not for secrets.
#pragma once

#include <cstdint>
#include <string>

namespace ipc {

std::uint64_t random64();

/// 16 hexadecimal digits.
std::string randomText();

}  // namespace ipc

// Character classes of ASCII, whatever the locale.
#pragma once

namespace common {

constexpr bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }
constexpr bool isAsciiLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
constexpr bool isAsciiLetterOrDigit(char c) { return isAsciiLetter(c) || isAsciiDigit(c); }

}  // namespace common

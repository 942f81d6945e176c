// Checks for well-formed UTF-8: no overlong forms, no surrogates, nothing beyond U+10FFFF.
#pragma once

#include <cstddef>
#include <string>

namespace propertyprotocol {

/// Length in bytes of the UTF-8 sequence at `at`: 1 for ASCII, 0 if it is malformed.
std::size_t utf8SequenceLength(const std::string& text, std::size_t at);

bool isUtf8(const std::string& text);

/// Keys and values must be UTF-8 without a NUL.
bool isUtf8WithoutNul(const std::string& text);

}  // namespace propertyprotocol

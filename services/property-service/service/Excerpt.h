// Excerpts of untrusted values for log lines.
#pragma once

#include <cstddef>
#include <string>

namespace propertyservice {

/// The first `maxCharacters` of a UTF-8 text, with control characters escaped and "..." appended if it is longer.
std::string excerpt(const std::string& text, std::size_t maxCharacters);

}  // namespace propertyservice

// Excerpts of values from outside for log lines.
#pragma once

#include <cstddef>
#include <string>

namespace propertyservice {

/// The first `most` characters of a UTF-8 text, with control characters escaped and "..." appended if it is longer.
std::string visibleBeginning(const std::string& text, std::size_t most);

}  // namespace propertyservice

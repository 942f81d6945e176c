// Key names with index ranges: "FunctionKeys.{0-7}.Label" expands to eight keys.
#pragma once

#include <string>
#include <vector>

namespace propertyservice {

/// Expands all index ranges; a name without a range is returned as it is.
/// Throws std::invalid_argument with the reason if a range is malformed or there are over 10,000 keys.
std::vector<std::string> expandKeyPattern(const std::string& pattern);

}  // namespace propertyservice

// Key names with index ranges: "FunctionKeys.{0-7}.Label" stands for eight keys.
#pragma once

#include <string>
#include <vector>

namespace propertyservice {

/// All keys that the pattern stands for; a name without a range stands for itself.
/// Throws std::invalid_argument with the reason when a range is malformed or there are over 10,000 keys.
std::vector<std::string> expandKeyPattern(const std::string& pattern);

}  // namespace propertyservice

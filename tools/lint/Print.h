// Findings for people: one block of lines each.
#pragma once

#include <string>

#include "lint/Lint.h"

namespace lint {

/// FILE:LINE:COLUMN: LEVEL: MESSAGE [RULE], the offending line with a caret below it, and the fix; without control
/// characters. Ends in a newline.
std::string toText(const Finding& finding);

/// "2 errors, 1 warning, 3 notes in 4 files", or "nothing found in 4 files".
std::string summaryOf(const Report& report);

}  // namespace lint

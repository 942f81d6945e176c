// An explanation as text for people, and as JSON for programs.
#pragma once

#include <json/value.h>

#include <ostream>

#include "explain/Explain.h"

namespace explain {

void print(std::ostream& out, const Explanation& explanation);

Json::Value toJson(const Explanation& explanation);

/// Whether the pass would end "success" or "partSuccess".
bool succeeds(const Explanation& explanation);

}  // namespace explain

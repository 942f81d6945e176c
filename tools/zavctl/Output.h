// Output of zavctl: text, or one JSON object per line.
#pragma once

#include <json/value.h>

#include <ostream>
#include <string>

#include "Failure.h"

namespace zavctl {

/// Prints the object in one line and flushes it, so that the reader of a pipe sees it at once.
void printJson(std::ostream& out, const Json::Value& object);

/// Prints the failure: with `json` as an object on `out`, otherwise as a message on `err`.
void printFailure(std::ostream& out, std::ostream& err, bool json, const Failure& failure);

/// The URL with its password replaced by "***", even if the URL is invalid.
std::string withoutPassword(const std::string& url);

}  // namespace zavctl

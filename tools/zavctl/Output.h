// How zavctl prints: text for people, or one JSON object a line.
#pragma once

#include <json/value.h>

#include <ostream>
#include <string>

#include "Failure.h"

namespace zavctl {

/// The object in one line, flushed: whoever reads a pipe sees it at once.
void printJson(std::ostream& out, const Json::Value& object);

/// The failure as the last thing that a command says: in JSON on `out`, in words on `err`.
void printFailure(std::ostream& out, std::ostream& err, bool json, const Failure& failure);

/// The URL with the password in it replaced by "***", also when something is wrong with it.
std::string withoutPassword(const std::string& url);

}  // namespace zavctl

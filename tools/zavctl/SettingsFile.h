// Settings in a file: {"version": 1, "properties": {KEY: VALUE, …}}.
#pragma once

#include <json/value.h>

#include <istream>
#include <map>
#include <optional>
#include <string>

namespace zavctl {

/// No value (null in the file): back to the default.
using Settings = std::map<std::string, std::optional<std::string>>;

Json::Value toJson(const Settings& settings);

/// "-" reads the standard input. Throws a Failure that names the file and what is wrong.
Settings readSettings(const std::string& path);

/// Writes the file at once or not at all, for its owner's eyes only. Throws a Failure, also when it exists already and
/// is not to be replaced.
void writeSettings(const std::string& path, const Settings& settings, bool replace);

}  // namespace zavctl

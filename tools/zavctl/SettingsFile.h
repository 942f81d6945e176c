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

}  // namespace zavctl

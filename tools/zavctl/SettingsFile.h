// A settings file: {"version": 1, "properties": {KEY: VALUE, …}}.
#pragma once

#include <json/value.h>

#include <istream>
#include <map>
#include <optional>
#include <string>

namespace zavctl {

/// No value (null in the file) stands for the default.
using Settings = std::map<std::string, std::optional<std::string>>;

Json::Value toJson(const Settings& settings);

/// "-" reads standard input. Throws a Failure with the file and the error.
Settings readSettings(const std::string& path);

}  // namespace zavctl

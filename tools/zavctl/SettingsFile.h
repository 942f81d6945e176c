// A settings file: {"version": 1, "properties": {KEY: VALUE, …}}; and how to write one that holds secrets.
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

/// The same, but also accepts the properties alone: {KEY: VALUE, …}.
Settings readProperties(const std::string& path);

/// Writes a file that holds secrets.
///
/// A regular file is written completely or not at all, with mode 0600; an existing one is replaced only with `replace`.
/// Text for a pipe or a character device is written to it, whatever `replace` says. Symbolic links to files,
/// directories, block devices and sockets are refused. Throws a Failure with the path and the reason, also for write
/// errors.
void writePrivateFile(const std::string& path, const std::string& text, bool replace);

}  // namespace zavctl

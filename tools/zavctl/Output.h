// Output of zavctl: text, or one JSON object per line.
#pragma once

#include <json/value.h>

#include <initializer_list>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace zavctl {

/// A JSON object with these members.
Json::Value toObject(std::initializer_list<std::pair<const char*, Json::Value>> members);

/// The text as JSON; null if there is none.
Json::Value orNull(const std::optional<std::string>& text);

/// Prints the object in one line and flushes it, so that the reader of a pipe sees it at once.
void printJson(std::ostream& out, const Json::Value& object);

/// Prints "zavctl: " and the text in one line.
void printError(std::ostream& err, const std::string& text);

/// Names and values.
using Table = std::vector<std::pair<const char*, std::string>>;

/// Prints two columns, the first one `width` wide; "-" for an empty value.
void printTable(std::ostream& out, int width, const Table& table);

/// Whether the text is a decimal number that fits into an int.
bool isNumber(const std::string& text);

/// The number as JSON; null if the text is not a number.
Json::Value toNumber(const std::string& text);

}  // namespace zavctl

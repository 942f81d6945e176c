// Parses and writes JSON.
#pragma once

#include <json/value.h>

#include <string>

namespace zavctl {

/// Returns false if the text is not valid JSON or has a duplicate key; `error` then says where and why, in one line.
bool parseJson(const std::string& text, Json::Value& value, std::string& error);

/// One line without whitespace, or indented.
std::string compactJson(const Json::Value& value);
std::string readableJson(const Json::Value& value);

}  // namespace zavctl

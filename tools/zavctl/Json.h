// Writes JSON.
#pragma once

#include <json/value.h>

#include <string>

namespace zavctl {

/// One line without whitespace, or indented.
std::string compactJson(const Json::Value& value);
std::string readableJson(const Json::Value& value);

}  // namespace zavctl

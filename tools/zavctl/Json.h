// JSON in and out, in the two ways that zavctl needs.
#pragma once

#include <json/value.h>

#include <string>

namespace zavctl {

/// False when the text is no JSON, or a member stands there twice; `error` then says where and why, in one line.
bool parseJson(const std::string& text, Json::Value& value, std::string& error);

/// In one line without blanks, and as people read it.
std::string compactJson(const Json::Value& value);
std::string readableJson(const Json::Value& value);

}  // namespace zavctl

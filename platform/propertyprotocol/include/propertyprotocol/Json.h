// JSON of the property protocol: writes messages, strictly checks and parses received ones. Any thread.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace propertyprotocol {

/// Appends the text as a JSON string. The text must be UTF-8.
void appendString(std::string& json, std::string_view text);

/// An object whose members are strings: names and values, which must be UTF-8.
std::string jsonObject(std::initializer_list<std::pair<std::string_view, std::string_view>> members);

/// Checks the tokens of a JSON text before the JSON library parses it. The library checks their order, but accepts what
/// RFC 8259 forbids: numbers such as 01 and 2., control characters in strings, a byte order mark, comments, and
/// unpaired surrogates.
///
/// Returns the number of commas and opening brackets outside strings: the text has at most one value more than that.
/// Returns nullopt if the text has anything that is not a JSON token in UTF-8.
std::optional<std::size_t> countJsonTokens(const std::string& json);

/// Why a text is not JSON.
struct JsonError {
    bool nestedTooDeeply = false;
    bool duplicateMember = false;
    std::string text;  // the first error, as "Line 3, Column 5:  REASON"
};

/// Parses at most `maxNesting` levels, without comments and duplicate members.
std::optional<JsonError> parseJson(const std::string& text, Json::Value& value);

/// The string member, "" if it is missing or not a string.
std::string textMember(const Json::Value& object, const char* name);

}  // namespace propertyprotocol

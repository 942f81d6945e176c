// JSON of the property protocol: writes messages, strictly checks received ones.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace propertyprotocol {

/// Appends the text as a JSON string. The text must be UTF-8.
void appendString(std::string& json, std::string_view text);

/// Appends a member with a string value, and before it "{" if `json` is empty and "," otherwise.
void appendMember(std::string& json, std::string_view name, std::string_view text);

/// Checks the tokens of a JSON text before the JSON library parses it. The library checks their order, but accepts what
/// RFC 8259 forbids: numbers such as 01 and 2., control characters in strings, a byte order mark, comments, and
/// unpaired surrogates.
///
/// Returns the number of commas and opening brackets outside strings: the text has at most one value more than that.
/// Returns nullopt if the text has anything that is not a JSON token in UTF-8.
std::optional<std::size_t> countJsonTokens(const std::string& json);

}  // namespace propertyprotocol

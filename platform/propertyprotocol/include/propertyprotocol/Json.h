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

/// The message that the property service publishes after each accepted set.
struct Change {
    std::string param;
    std::string value;
    std::string source;
};

std::string changeMessage(std::string_view param, std::string_view value, std::string_view source);

/// Returns false and leaves `change` unchanged if the message is not a change.
bool readChange(const std::string& message, Change& change);

/// Checks the tokens of a JSON text before the JSON library parses it. The library checks their order, but accepts what
/// RFC 8259 forbids: numbers such as 01 and 2., control characters in strings, a byte order mark, comments, and
/// unpaired surrogates.
///
/// Returns the number of commas and opening brackets outside strings: the text has at most one value more than that.
/// Returns nullopt if the text has anything that is not a JSON token in UTF-8.
std::optional<std::size_t> countJsonTokens(const std::string& json);

/// The first error in a text that is not JSON.
struct JsonError {
    bool nestedTooDeeply = false;  // then without a place
    int line = 1;
    int column = 1;
    std::string reason;

    bool isDuplicateMember() const { return reason.rfind("Duplicate key", 0) == 0; }
    /// For people: place and reason.
    std::string text() const;
};

/// Parses at most `maxNesting` levels, without comments and duplicate members.
std::optional<JsonError> parseJson(const std::string& text, Json::Value& value);

/// The string member, "" if it is missing or not a string.
std::string textMember(const Json::Value& object, const char* name);

}  // namespace propertyprotocol

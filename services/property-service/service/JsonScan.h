// The tokens of a JSON text, checked before the JSON library parses it.
//
// The library is more lenient than RFC 8259: it accepts numbers such as 01 and 2., control bytes in strings, a byte
// order mark, comments, and surrogates that are not a pair. This checks each token; the library checks their order.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace propertyservice {

/// How many commas and opening brackets the text has outside its strings: it holds at most that many values, and one
/// more. None: it has something that is not a token of JSON in UTF-8.
std::optional<std::size_t> countJsonParts(const std::string& json);

}  // namespace propertyservice

// Checks of text that came from outside.
#pragma once

#include <string>

namespace propertyservice {

/// Well-formed UTF-8 (no surrogates, no overlong forms) without a NUL.
bool isCleanText(const std::string& text);

/// The same of a JSON text, which moreover holds no control byte inside its strings, where JSON wants escapes, and no
/// comment: both would pass the JSON library.
bool isCleanJson(const std::string& text);

/// How many commas and opening brackets a JSON text has outside its strings: what it holds is at most so many values,
/// and one more.
std::size_t countParts(const std::string& json);

}  // namespace propertyservice

// Checks of text that came from outside.
#pragma once

#include <cstddef>
#include <string>

namespace propertyservice {

/// How many bytes the well-formed multi-byte sequence at `at` has; 0 if there is none.
std::size_t utf8SequenceLength(const std::string& text, std::size_t at);

/// Well-formed UTF-8 (no surrogates, no overlong forms) without a NUL.
bool isCleanText(const std::string& text);

/// The first characters of a UTF-8 text, `most` of them, for a log line: control characters as escapes, and "..."
/// behind what is not the whole text.
std::string visibleBeginning(const std::string& text, std::size_t most);

}  // namespace propertyservice

// What to do about a misspelt name, in words. Pure functions.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace lint {

class Settings;

/// For a key that the phone does not have: the nearest one, or the numbers that it may have. Empty if nothing is near.
std::string keyRemedy(const Settings& settings, const std::string& key);

/// A "%" and what follows, if it begins neither a placeholder nor an escape.
std::optional<std::string> unknownPlaceholder(const std::string& url);
/// For what unknownPlaceholder returned.
std::string placeholderRemedy(const std::string& unknown);

/// `write "NEAREST"` if one of the names is near, else empty.
std::string suggestion(const std::string& misspelt, const std::vector<std::string>& names);

/// The text in quotation marks, shortened, control characters replaced.
std::string quoted(const std::string& text);

/// For text in which XML expects a quotation mark: whether it is one that word processors write.
bool isTypographicQuote(const std::string& text, std::size_t at);

}  // namespace lint

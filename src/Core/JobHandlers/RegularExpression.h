// POSIX extended regular expressions in which \d is a digit, whatever C library the daemon runs on. Any thread.
#pragma once

#include <optional>
#include <string>

namespace zav {

/// Whether the first match of an anchored pattern, "^(…)$", is the whole text; a final newline counts, and a text with
/// a NUL byte does not match. Texts are bytes; "." is any one of them. Returns nullopt if the pattern does not compile.
/// The matcher backtracks, and gives up after some ten million steps without a match: patterns must be the daemon's
/// own, never a server's.
std::optional<bool> matchesWhole(const std::string& pattern, const std::string& text);

}  // namespace zav

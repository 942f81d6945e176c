// POSIX extended regular expressions in which \d is a digit, whatever C library the daemon runs on. Any thread.
#pragma once

#include <optional>
#include <string>

namespace zav {

/// Whether the pattern matches the text from its first byte to its last, final newlines and NUL bytes included. Texts
/// are bytes; "." stands for any one of them. Nothing if the pattern does not compile. The matcher backtracks: patterns
/// are ours, never a server's. It gives up after some ten million steps and then does not match.
std::optional<bool> matchesWhole(const std::string& pattern, const std::string& text);

}  // namespace zav

// What a target checks about a result. A promise that is broken aborts, because libFuzzer takes an exception or a crash
// as a finding, and prints what was promised.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

namespace fuzz {

inline void promise(bool kept, const char* what) {
    if (kept) return;
    std::fprintf(stderr, "Broken promise: %s\n", what);
    std::abort();
}

/// The first line of the text without its line break, and the rest.
inline std::pair<std::string, std::string> splitLine(const std::string& text) {
    const auto end = text.find('\n');
    if (end == std::string::npos) return {text, ""};
    return {text.substr(0, end), text.substr(end + 1)};
}

}  // namespace fuzz

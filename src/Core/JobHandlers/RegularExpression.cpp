#include "Core/JobHandlers/RegularExpression.h"

#include <pcre2posix.h>

namespace zav {

std::optional<bool> matchesWhole(const std::string& pattern, const std::string& text) {
    // Compiled for each match: this library writes its results into the compiled expression, so threads cannot share
    // it.
    regex_t expression{};
    // By name: the numbers differ from those of the C library. Without REG_DOTALL "." is not a newline.
    if (regcomp(&expression, pattern.c_str(), REG_EXTENDED | REG_DOTALL) != 0) return std::nullopt;
    regmatch_t match{};
    const bool found = regexec(&expression, text.c_str(), 1, &match, 0) == 0;
    regfree(&expression);
    // "$" matches before a final newline too, and a NUL byte ends what the matcher sees.
    return found && match.rm_so == 0 && match.rm_eo >= 0 && static_cast<std::size_t>(match.rm_eo) == text.size();
}

}  // namespace zav

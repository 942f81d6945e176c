#include "ContentCoding.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <utility>
#include <vector>

namespace zav {

namespace {

using Suffix = std::pair<const char*, const char*>;  // of a coding

constexpr std::array<Suffix, 10> suffixes{{
    {"gzip", ".gz"},
    {"gzip", ".tgz"},
    {"compress", ".Z"},
    {"br", ".br"},
    {"zstd", ".zst"},
    {"zstd", ".tzst"},
    {"xz", ".xz"},
    {"xz", ".txz"},
    {"bzip2", ".bz2"},
    {"bzip2", ".tbz2"},
}};

// The codings that change the body, without the "x-" of their old names.
std::vector<std::string> appliedCodings(const std::string& codings) {
    std::vector<std::string> applied;
    std::string coding;
    for (std::istringstream list(codings); std::getline(list, coding, ',');) {
        coding.erase(0, coding.find_first_not_of(" \t"));
        coding.erase(coding.find_last_not_of(" \t") + 1);
        if (coding.empty() || strcasecmp(coding.c_str(), "identity") == 0) continue;
        applied.push_back(strncasecmp(coding.c_str(), "x-", 2) == 0 ? coding.substr(2) : coding);
    }
    return applied;
}

bool endsWith(const std::string& name, const std::string& suffix) {
    return name.size() > suffix.size() && strcasecmp(name.c_str() + name.size() - suffix.size(), suffix.c_str()) == 0;
}

}  // namespace

bool isAcceptedCoding(const std::string& codings, const std::string& fileName) {
    const std::vector<std::string> applied = appliedCodings(codings);
    if (applied.empty()) return true;
    return applied.size() == 1 && std::any_of(suffixes.begin(), suffixes.end(), [&](const Suffix& suffix) {
               return strcasecmp(applied.front().c_str(), suffix.first) == 0 && endsWith(fileName, suffix.second);
           });
}

}  // namespace zav

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

bool isSame(const std::string& coding, const std::string& name) {
    return strcasecmp(coding.c_str(), name.c_str()) == 0;
}

// Some codings have an old name, too.
bool isNamed(const std::string& coding, const std::string& name) {
    return isSame(coding, name) || (name != "br" && name != "zstd" && isSame(coding, "x-" + name));
}

// The codings that change the body.
std::vector<std::string> appliedCodings(const std::string& codings) {
    std::vector<std::string> applied;
    std::string coding;
    for (std::istringstream list(codings); std::getline(list, coding, ',');) {
        coding.erase(0, coding.find_first_not_of(" \t"));
        coding.erase(coding.find_last_not_of(" \t") + 1);
        if (!coding.empty() && !isSame(coding, "identity")) applied.push_back(coding);
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
               return isNamed(applied.front(), suffix.first) && endsWith(fileName, suffix.second);
           });
}

}  // namespace zav

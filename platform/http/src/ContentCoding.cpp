#include "ContentCoding.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <vector>

namespace zav {

namespace {

struct Suffix {
    const char* coding;
    const char* suffix;
};

constexpr std::array<Suffix, 17> suffixes{{
    {"gzip", ".gz"},
    {"gzip", ".tgz"},
    {"x-gzip", ".gz"},
    {"x-gzip", ".tgz"},
    {"compress", ".Z"},
    {"x-compress", ".Z"},
    {"br", ".br"},
    {"zstd", ".zst"},
    {"zstd", ".tzst"},
    {"xz", ".xz"},
    {"xz", ".txz"},
    {"x-xz", ".xz"},
    {"x-xz", ".txz"},
    {"bzip2", ".bz2"},
    {"bzip2", ".tbz2"},
    {"x-bzip2", ".bz2"},
    {"x-bzip2", ".tbz2"},
}};

std::vector<std::string> split(const std::string& list) {
    std::vector<std::string> elements;
    for (std::size_t begin = 0; begin <= list.size();) {
        const std::size_t end = std::min(list.find(',', begin), list.size());
        const std::size_t first = list.find_first_not_of(" \t", begin);
        if (first < end) {
            const std::size_t last = list.find_last_not_of(" \t", end - 1);
            elements.push_back(list.substr(first, last + 1 - first));
        }
        begin = end + 1;
    }
    return elements;
}

bool endsWith(const std::string& name, const std::string& suffix) {
    return name.size() > suffix.size() && strcasecmp(name.c_str() + name.size() - suffix.size(), suffix.c_str()) == 0;
}

}  // namespace

bool isAcceptedCoding(const std::string& codings, const std::string& fileName) {
    std::vector<std::string> applied = split(codings);
    applied.erase(std::remove_if(applied.begin(), applied.end(),
                                 [](const std::string& coding) { return strcasecmp(coding.c_str(), "identity") == 0; }),
                  applied.end());
    if (applied.empty()) return true;
    return applied.size() == 1 && std::any_of(suffixes.begin(), suffixes.end(), [&](const Suffix& suffix) {
               return strcasecmp(applied.front().c_str(), suffix.coding) == 0 && endsWith(fileName, suffix.suffix);
           });
}

}  // namespace zav

#include "catalogue/KeyPattern.h"

#include <charconv>
#include <optional>
#include <stdexcept>

namespace propertyservice {

namespace {

constexpr std::size_t maxKeys = 10000;

struct Range {
    unsigned first;
    unsigned last;
};

std::optional<unsigned> index(const std::string& digits) {
    unsigned number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    const bool canonical = digits == "0" || (!digits.empty() && digits.front() != '0');
    if (error != std::errc() || end != digits.data() + digits.size() || !canonical) return std::nullopt;
    return number;
}

Range range(const std::string& text) {
    const std::string::size_type dash = text.find('-');
    if (dash != std::string::npos) {
        const std::optional<unsigned> first = index(text.substr(0, dash));
        const std::optional<unsigned> last = index(text.substr(dash + 1));
        if (first && last && *first <= *last && *last - *first < maxKeys) return {*first, *last};
    }
    throw std::invalid_argument("\"{" + text + "}\" is not an index range such as {0-7}");
}

}  // namespace

std::vector<std::string> expandKeyPattern(const std::string& pattern) {
    std::vector<std::string> keys{""};
    std::string::size_type position = 0;
    while (position < pattern.size()) {
        const std::string::size_type open = pattern.find('{', position);
        const std::string literal = pattern.substr(position, open - position);
        for (std::string& key : keys) key += literal;
        if (open == std::string::npos) break;
        const std::string::size_type close = pattern.find('}', open);
        if (close == std::string::npos) throw std::invalid_argument("\"{\" is not closed");
        const Range indices = range(pattern.substr(open + 1, close - open - 1));
        if (keys.size() * (indices.last - indices.first + 1) > maxKeys) {
            throw std::invalid_argument("the pattern expands to more than " + std::to_string(maxKeys) + " keys");
        }
        std::vector<std::string> longer;
        for (const std::string& key : keys) {
            for (unsigned offset = 0; offset <= indices.last - indices.first; ++offset) {
                longer.push_back(key + std::to_string(indices.first + offset));
            }
        }
        keys = std::move(longer);
        position = close + 1;
    }
    return keys;
}

}  // namespace propertyservice

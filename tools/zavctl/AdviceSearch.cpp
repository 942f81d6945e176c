#include <algorithm>
#include <cstddef>

#include "Advice.h"

namespace zavctl {

namespace {

constexpr std::string_view anyText = "…";
constexpr char none[] = "–";

struct Pattern {
    const Advice* advice;
    std::vector<std::string_view> pieces;  // "…" stands between two of them
    std::size_t literals = 0;
};

std::vector<std::string_view> split(std::string_view text, std::string_view separator) {
    std::vector<std::string_view> pieces;
    while (true) {
        const std::size_t end = text.find(separator);
        pieces.push_back(text.substr(0, end));
        if (end == std::string_view::npos) return pieces;
        text.remove_prefix(end + separator.size());
    }
}

void addPatterns(const std::vector<Advice>& rows, std::vector<Pattern>& patterns) {
    for (const Advice& advice : rows) {
        const std::vector<std::string_view> parts = split(advice.line, "`");
        for (std::size_t quoted = 1; quoted < parts.size(); quoted += 2) {
            Pattern pattern{&advice, split(parts[quoted], anyText)};
            for (const std::string_view piece : pattern.pieces) pattern.literals += piece.size();
            patterns.push_back(std::move(pattern));
        }
    }
    std::stable_sort(patterns.begin(), patterns.end(),
                     [](const Pattern& a, const Pattern& b) { return a.literals > b.literals; });
}

// Most literal characters first.
const std::vector<Pattern>& allPatterns() {
    static const std::vector<Pattern> patterns = [] {
        std::vector<Pattern> all;
        addPatterns(logAdvice(), all);
        addPatterns(ownAdvice(), all);
        return all;
    }();
    return patterns;
}

bool fits(const std::vector<std::string_view>& pieces, std::string_view text) {
    const std::string_view first = pieces.front();
    const std::string_view last = pieces.back();
    if (pieces.size() == 1) return text == first;
    if (text.substr(0, first.size()) != first) return false;
    text.remove_prefix(first.size());
    if (text.size() < last.size() || text.substr(text.size() - last.size()) != last) return false;
    text.remove_suffix(last.size());
    for (std::size_t piece = 1; piece + 1 < pieces.size(); ++piece) {
        const std::size_t found = text.find(pieces[piece]);
        if (found == std::string_view::npos) return false;
        text.remove_prefix(found + pieces[piece].size());
    }
    return true;
}

// The text and target of "[TEXT](TARGET)" as plain text.
std::string plainLink(std::string_view text, std::string_view target) {
    const std::string_view page = target.substr(0, target.find('#'));
    const std::string place = "docs/" + std::string(page.empty() ? "common-errors.md" : page);
    return text == page ? place : std::string(text) + " (" + place + ")";
}

}  // namespace

const Advice* findAdvice(std::string_view text) {
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    for (const Pattern& pattern : allPatterns()) {
        if (fits(pattern.pieces, text)) return pattern.advice;
    }
    return nullptr;
}

std::string plainRemedy(const Advice& advice) {
    std::string_view rest = advice.remedy;
    std::string plain;
    if (rest == none) return plain;
    while (!rest.empty()) {
        const std::size_t middle = rest.front() == '[' ? rest.find("](") : std::string_view::npos;
        const std::size_t end = middle == std::string_view::npos ? middle : rest.find(')', middle);
        if (end != std::string_view::npos) {
            plain += plainLink(rest.substr(1, middle - 1), rest.substr(middle + 2, end - middle - 2));
            rest.remove_prefix(end + 1);
            continue;
        }
        if (rest.front() != '`') plain += rest.front();
        rest.remove_prefix(1);
    }
    return plain;
}

}  // namespace zavctl

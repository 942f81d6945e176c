#include "lint/Spelling.h"

#include <algorithm>
#include <cctype>
#include <utility>
#include <vector>

namespace lint {

namespace {

char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

}  // namespace

std::size_t distanceOf(const std::string& a, const std::string& b, std::size_t limit) {
    const std::size_t lengths = a.size() > b.size() ? a.size() - b.size() : b.size() - a.size();
    if (lengths > limit) return limit + 1;
    // Rows of the usual table: before the previous, previous, current.
    std::vector<std::size_t> older(b.size() + 1);
    std::vector<std::size_t> old(b.size() + 1);
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) old[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        row[0] = i;
        std::size_t least = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const bool same = lower(a[i - 1]) == lower(b[j - 1]);
            row[j] = std::min({old[j] + 1, row[j - 1] + 1, old[j - 1] + (same ? 0 : 1)});
            const bool swapped =
                i > 1 && j > 1 && lower(a[i - 1]) == lower(b[j - 2]) && lower(a[i - 2]) == lower(b[j - 1]);
            if (swapped) row[j] = std::min(row[j], older[j - 2] + 1);
            least = std::min(least, row[j]);
        }
        if (least > limit) return limit + 1;
        older.swap(old);
        old.swap(row);
    }
    return std::min(old[b.size()], limit + 1);
}

Nearest::Nearest(std::string misspelt) : misspelt_(std::move(misspelt)), edits_(misspelt_.size() / 3 + 1) {
    for (const char c : misspelt_) ++letters_[static_cast<unsigned char>(lower(c))];
}

// No fewer edits turn one name into the other: each adds one letter, or removes one, or both, or neither. Most
// candidates are already too far by this, which takes a small part of the table's time.
std::size_t Nearest::lettersApart(const std::string& candidate) const {
    auto missing = letters_;
    std::size_t common = 0;
    for (const char c : candidate) {
        unsigned& left = missing[static_cast<unsigned char>(lower(c))];
        if (left == 0) continue;
        --left;
        ++common;
    }
    return std::max(misspelt_.size(), candidate.size()) - common;
}

void Nearest::consider(const std::string& candidate) {
    if (misspelt_.empty() || edits_ == 0 || lettersApart(candidate) > edits_) return;
    const std::size_t edits = distanceOf(misspelt_, candidate, edits_);
    const bool better = edits < edits_ || (edits == edits_ && !found_.empty() && candidate < found_);
    if (!better) return;
    edits_ = edits;
    found_ = candidate;
}

}  // namespace lint

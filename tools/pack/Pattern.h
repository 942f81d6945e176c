// A text with placeholders: {column} stands for the row's value in that column, {{ for a brace.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace pack {

class Pattern {
 public:
    /// `columns` are the names that may stand in braces. Throws Error for any other name and for a brace that is not
    /// closed, with `name` and the line.
    Pattern(const std::string& text, const std::vector<std::string>& columns, const std::string& name);

    /// A text in which braces mean nothing.
    static Pattern literal(std::string text);

    bool hasPlaceholders() const { return !holes_.empty(); }

    /// The columns that are used, in order of their places.
    const std::vector<std::size_t>& columns() const { return holes_; }

    /// `values` holds one value a column.
    std::string expand(const std::vector<std::string>& values) const;

 private:
    Pattern() = default;

    std::vector<std::string> literals_;  // one more than holes
    std::vector<std::size_t> holes_;
};

/// The value as it must stand in XML, in an attribute or between tags; blanks other than the space as references, so
/// that they survive. Throws Error for characters that XML cannot hold.
std::string escapedForXml(const std::string& value);

}  // namespace pack

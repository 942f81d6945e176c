// The text of a document in UTF-8: positions in it, and lines of it to show. Secrets in shown lines are replaced.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace lint {

struct Position {
    unsigned line = 0;    // from 1
    unsigned column = 0;  // from 1, in characters
};

struct Excerpt {
    std::string text;    // one line without control characters, at most 100 characters wide
    unsigned caret = 0;  // from 1; 0: none
};

/// From an offset up to another.
using Range = std::pair<std::size_t, std::size_t>;

/// For one thread at a time.
class Source {
 public:
    /// `isSecret` says whether the value of a setting must not be shown. Bytes that are not UTF-8 may be in the text.
    Source(std::string text, std::function<bool(const std::string& setting)> isSecret);

    const std::string& text() const { return text_; }
    Position positionOf(std::size_t offset) const;
    /// The line that the offset is in.
    Excerpt excerptAt(std::size_t offset) const;
    /// The offset of a line and a column in bytes, both from 1; of the text's end if it has no such line.
    std::size_t offsetOf(int line, int byteColumn) const;

 private:
    std::size_t lineOf(std::size_t offset) const;  // from 0
    std::size_t endOf(std::size_t line) const;
    const std::vector<Range>& secrets() const;
    void addSecretsOf(std::size_t tag, std::vector<Range>& found) const;

    const std::string text_;
    const std::function<bool(const std::string&)> isSecret_;
    std::vector<std::size_t> lines_;                     // where each begins
    mutable std::optional<std::vector<Range>> secrets_;  // searched for with the first excerpt
};

/// Where the text ceases to be UTF-8; npos if it does not.
std::size_t invalidUtf8(const std::string& text);

/// The text with "?" for each byte that is not UTF-8.
std::string validUtf8(const std::string& text);

/// Whether a name says that its value is a secret: for settings that no catalogue knows.
bool soundsSecret(const std::string& setting);

}  // namespace lint

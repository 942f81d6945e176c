// Guesses which of several known names was meant by a misspelt one.
#pragma once

#include <array>
#include <cstddef>
#include <string>

namespace lint {

/// Edits (insert, remove, replace, swap neighbours) between two names, upper and lower case aside. Beyond `limit` the
/// result is limit + 1.
std::size_t distanceOf(const std::string& a, const std::string& b, std::size_t limit);

/// Takes candidates in any order. The one with the fewest edits is found, of several the first by byte order; none if
/// more than a third of the name would have to change.
class Nearest {
 public:
    explicit Nearest(std::string misspelt);
    void consider(const std::string& candidate);
    const std::string& found() const { return found_; }

 private:
    std::size_t lettersApart(const std::string& candidate) const;

    const std::string misspelt_;
    std::array<unsigned, 256> letters_{};  // how often each is in misspelt_, upper and lower case alike
    std::size_t edits_;                    // of found_; at first one more than is allowed
    std::string found_;
};

}  // namespace lint

// A name in the catalogue that stands for one key or, with index ranges, for many: "FunctionKeys.{0-7}.Label" for
// eight.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace propertyservice {

class KeyPattern {
 public:
    /// Throws std::invalid_argument with the reason if a range is malformed, or if ranges expand to over 10,000 keys or
    /// to keys of over 255 bytes. The keys are not checked otherwise, and a name without a range not at all.
    explicit KeyPattern(const std::string& text);

    /// The number of keys.
    std::size_t size() const { return size_; }

    /// One of the keys.
    std::string example() const;

    /// Calls `take` with each key. The numbers of each range come in the order of their texts: 10 before 9.
    void expand(const std::function<void(std::string_view)>& take) const;

 private:
    struct Range {
        std::uint64_t first;
        std::uint64_t last;
        std::string textBehind;
    };

    static Range readRange(const std::string& text);

    std::string textBefore_;  // before the first range
    std::vector<Range> ranges_;
    std::size_t size_ = 1;
};

}  // namespace propertyservice

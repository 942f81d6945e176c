// Many short texts in few large blocks: strings of their own would take most of the time that it takes to make them.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

namespace common {

class TextBlocks {
 public:
    /// Returns a copy that lasts as long as this object, or the one that it is moved to.
    std::string_view copy(std::string_view text);

 private:
    std::vector<std::unique_ptr<char[]>> blocks_;
    char* next_ = nullptr;  // unused bytes of the last block
    std::size_t room_ = 0;
};

}  // namespace common

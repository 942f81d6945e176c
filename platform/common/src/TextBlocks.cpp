#include "common/TextBlocks.h"

#include <algorithm>

namespace common {

namespace {

constexpr std::size_t blockBytes = 65536;

}  // namespace

std::string_view TextBlocks::copy(std::string_view text) {
    if (text.size() > room_ || blocks_.empty()) {  // without blocks it was moved from
        const std::size_t size = std::max(blockBytes, text.size());
        blocks_.push_back(std::unique_ptr<char[]>(new char[size]));  // make_unique would initialise it
        next_ = blocks_.back().get();
        room_ = size;
    }
    char* const copied = next_;
    std::copy(text.begin(), text.end(), copied);
    next_ += text.size();
    room_ -= text.size();
    return {copied, text.size()};
}

}  // namespace common

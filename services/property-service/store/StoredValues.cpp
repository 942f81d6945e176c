#include "store/StoredValues.h"

#include <algorithm>

namespace propertyservice {

namespace {

constexpr std::size_t blockBytes = 65536;

}  // namespace

std::string_view StoredValues::copy(std::string_view text) {
    if (text.size() > room_) {
        room_ = std::max(blockBytes, text.size());
        next_ = blocks_.emplace_back(new char[room_]).get();  // not initialised, other than by make_unique
    }
    char* const copied = next_;
    std::copy(text.begin(), text.end(), copied);
    next_ += text.size();
    room_ -= text.size();
    return {copied, text.size()};
}

}  // namespace propertyservice

#include "version/FirmwareVersion.h"

#include <algorithm>
#include <utility>

#include "common/Ascii.h"

namespace version {

namespace {

using common::isAsciiDigit;
using common::isAsciiLetterOrDigit;

constexpr std::size_t maxTextLength = 128;

// Numbers have any length. Without leading zeros the longer one is greater.
int compareNumbers(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
    return a.compare(b);
}

int compareNumberLists(const std::vector<std::string>& a, const std::vector<std::string>& b) {
    static const std::string zero;  // empty, like all zeros in the lists
    for (std::size_t i = 0; i < std::max(a.size(), b.size()); ++i) {
        const int order = compareNumbers(i < a.size() ? a[i] : zero, i < b.size() ? b[i] : zero);
        if (order != 0) return order;
    }
    return 0;
}

}  // namespace

FirmwareVersion::FirmwareVersion(std::string text) : text_(std::move(text)), valid_(parse()) {}

bool FirmwareVersion::parse() {
    if (text_.size() > maxTextLength) return false;
    std::string rest = text_;
    if (const auto dash = rest.find('-'); dash != std::string::npos) {
        productLine_ = rest.substr(0, dash);
        rest.erase(0, dash + 1);
        if (productLine_.empty() || !std::all_of(productLine_.begin(), productLine_.end(), isAsciiLetterOrDigit))
            return false;
    }
    if (!rest.empty() && rest.front() == 'V') rest.erase(0, 1);
    for (std::size_t begin = 0;;) {
        const std::size_t dot = rest.find('.', begin);
        std::string number = rest.substr(begin, dot - begin);
        if (number.empty() || !std::all_of(number.begin(), number.end(), isAsciiDigit)) return false;
        number.erase(0, std::min(number.find_first_not_of('0'), number.size()));
        numbers_.push_back(number);
        if (dot == std::string::npos) return true;
        begin = dot + 1;
    }
}

Comparison FirmwareVersion::compare(const FirmwareVersion& offered) const {
    if (!offered.valid_) return Comparison::malformed;
    if (!valid_) return Comparison::noUpgradePath;
    if (!productLine_.empty() && !offered.productLine_.empty() && productLine_ != offered.productLine_) {
        return Comparison::noUpgradePath;
    }
    const int order = compareNumberLists(offered.numbers_, numbers_);
    if (order == 0) return Comparison::equal;
    return order > 0 ? Comparison::newer : Comparison::older;
}

}  // namespace version

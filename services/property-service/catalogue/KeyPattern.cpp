#include "catalogue/KeyPattern.h"

#include <charconv>
#include <optional>
#include <stdexcept>
#include <utility>

#include "catalogue/ValueRule.h"
#include "propertyprotocol/Limits.h"

namespace propertyservice {

namespace {

constexpr std::size_t maxKeys = 10000;

std::optional<std::uint64_t> indexOf(const std::string& digits) {
    unsigned number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    const bool canonical = digits == "0" || (!digits.empty() && digits.front() != '0');
    if (error != std::errc() || end != digits.data() + digits.size() || !canonical) return std::nullopt;
    return number;
}

// Appends the number and those that begin with its digits, as far as they are in the range, in the order of their
// texts.
void appendNumbers(std::uint64_t number, std::uint64_t first, std::uint64_t last, std::vector<std::string>& texts) {
    std::uint64_t least = number;
    for (std::uint64_t greatest = number; greatest < first; greatest = greatest * 10 + 9) least *= 10;
    if (least > last) return;
    if (number >= first) texts.push_back(std::to_string(number));
    if (number == 0 || number * 10 > last) return;
    for (std::uint64_t digit = 0; digit < 10; ++digit) appendNumbers(number * 10 + digit, first, last, texts);
}

}  // namespace

KeyPattern::Range KeyPattern::readRange(const std::string& text) {
    const std::string::size_type dash = text.find('-');
    const bool hasDash = dash != std::string::npos;
    const std::optional<std::uint64_t> first = hasDash ? indexOf(text.substr(0, dash)) : std::nullopt;
    const std::optional<std::uint64_t> last = hasDash ? indexOf(text.substr(dash + 1)) : std::nullopt;
    if (!first || !last || *first > *last || *last - *first >= maxKeys) {
        throw std::invalid_argument("\"{" + text + "}\" is not an index range such as {0-7}");
    }
    return {*first, *last, ""};
}

KeyPattern::KeyPattern(const std::string& text) {
    std::string::size_type open = text.find('{');
    textBefore_ = text.substr(0, open);
    std::size_t longest = textBefore_.size();
    while (open != std::string::npos) {
        const std::string::size_type close = text.find('}', open);
        require(close != std::string::npos, "\"{\" is not closed");
        Range range = readRange(text.substr(open + 1, close - open - 1));
        size_ *= range.last - range.first + 1;
        require(size_ <= maxKeys, "the pattern expands to more than " + std::to_string(maxKeys) + " keys");
        open = text.find('{', close);
        range.textBehind = text.substr(close + 1, open - close - 1);
        longest += std::to_string(range.last).size() + range.textBehind.size();
        require(longest <= propertyprotocol::maxKeyBytes,
                "the pattern expands to keys of more than " + std::to_string(propertyprotocol::maxKeyBytes) + " bytes");
        ranges_.push_back(std::move(range));
    }
}

std::string KeyPattern::example() const {
    std::string key = textBefore_;
    for (const Range& range : ranges_) key += std::to_string(range.first) + range.textBehind;
    return key;
}

void KeyPattern::expand(const std::function<void(std::string_view)>& take) const {
    std::vector<std::vector<std::string>> endings(ranges_.size());
    for (std::size_t at = 0; at < ranges_.size(); ++at) {
        const Range& range = ranges_[at];
        endings[at].reserve(range.last - range.first + 1);
        for (std::uint64_t digit = 0; digit < 10; ++digit) appendNumbers(digit, range.first, range.last, endings[at]);
        for (std::string& ending : endings[at]) ending += range.textBehind;
    }
    std::string key = textBefore_;
    const std::function<void(std::size_t)> extend = [&](std::size_t at) {
        if (at == endings.size()) return take(key);
        const std::size_t size = key.size();
        for (const std::string& ending : endings[at]) {
            key.replace(size, std::string::npos, ending);
            extend(at + 1);
        }
    };
    extend(0);
}

}  // namespace propertyservice

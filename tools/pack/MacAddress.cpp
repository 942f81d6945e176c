#include "pack/MacAddress.h"

#include <cctype>

namespace pack {

namespace {

constexpr std::size_t digitCount = 12;
constexpr std::size_t separatedSize = digitCount + 5;

bool isGroupAddress(const std::string& digits) {
    return (std::stoi(digits.substr(0, 2), nullptr, 16) & 1) != 0;  // NOLINT(cert-err34-c): checked digits
}

}  // namespace

std::optional<std::string> formatMac(const std::string& text, char separator) {
    if (text.size() != digitCount && text.size() != separatedSize) return std::nullopt;
    const bool separated = text.size() == separatedSize;
    std::string digits;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (separated && at % 3 == 2) {
            if (text[at] != text[2] || (text[at] != ':' && text[at] != '-')) return std::nullopt;
        } else if (std::isxdigit(static_cast<unsigned char>(text[at])) == 0) {
            return std::nullopt;
        } else {
            digits += text[at];
        }
    }
    if (isGroupAddress(digits)) return std::nullopt;
    std::string formatted = digits.substr(0, 2);
    for (std::size_t at = 2; at < digits.size(); at += 2) formatted += separator + digits.substr(at, 2);
    return formatted;
}

}  // namespace pack

#include "http/FormatUrl.h"

#include <algorithm>
#include <cctype>

namespace zav {

namespace {

constexpr std::size_t placeholderLength = 5;

bool isAllowed(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == ':' || c == '.' ||
           c == '_' || c == '-';
}

std::string reduced(std::string value) {
    value.erase(std::remove_if(value.begin(), value.end(), [](char c) { return !isAllowed(c); }), value.end());
    return value;
}

// The address with `separator` between its pairs, however it is stored: "0A:1B…", "0a-1b…" or "0a1b…". What is no
// address keeps its own shape.
std::string separated(const std::string& address, char separator) {
    std::string text = reduced(address);
    std::string digits = text;
    digits.erase(std::remove_if(digits.begin(), digits.end(), [](char c) { return c == ':' || c == '-' || c == '.'; }),
                 digits.end());
    const bool hexadecimal =
        std::all_of(digits.begin(), digits.end(), [](unsigned char c) { return std::isxdigit(c); });
    if (!hexadecimal || digits.size() != 12) {
        std::replace_if(
            text.begin(), text.end(), [](char c) { return c == ':' || c == '-'; }, separator);
        return text;
    }
    std::string pairs = digits.substr(0, 2);
    for (std::size_t at = 2; at < digits.size(); at += 2) pairs += separator + digits.substr(at, 2);
    return pairs;
}

}  // namespace

std::string formatUrl(const std::string& text, const std::shared_ptr<propertyapi::IPropertyApi>& properties) {
    std::string expanded;
    std::size_t at = 0;
    for (;;) {
        const auto percent = text.find('%', at);
        expanded += text.substr(at, percent == std::string::npos ? percent : percent - at);
        if (percent == std::string::npos) return expanded;
        const std::string placeholder = text.substr(percent, placeholderLength);
        at = percent + placeholderLength;
        if (placeholder == "%MACC") {
            expanded += separated(properties->get("NET.MAC.Address"), ':');
        } else if (placeholder == "%MACD") {
            expanded += separated(properties->get("NET.MAC.Address"), '-');
        } else if (placeholder == "%DVID") {
            expanded += reduced(properties->get("System.General.DeviceID"));
        } else {
            expanded += '%';
            at = percent + 1;
        }
    }
}

}  // namespace zav

#include "http/FormatUrl.h"

#include <algorithm>
#include <cctype>

#include "common/Ascii.h"

namespace zav {

namespace {

constexpr std::size_t placeholderLength = 5;

bool isAllowed(char c) { return common::isAsciiLetterOrDigit(c) || c == ':' || c == '.' || c == '_' || c == '-'; }

std::string onlyAllowed(std::string value) {
    value.erase(std::remove_if(value.begin(), value.end(), [](char c) { return !isAllowed(c); }), value.end());
    return value;
}

// The MAC address with `separator` between its pairs of digits. It may be stored as "0A:1B…", "0a-1b…" or "0a1b…". In a
// value that is not a MAC address only ":" and "-" are replaced.
std::string formatMac(const std::string& address, char separator) {
    std::string text = onlyAllowed(address);
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
            expanded += formatMac(properties->get("NET.MAC.Address"), ':');
        } else if (placeholder == "%MACD") {
            expanded += formatMac(properties->get("NET.MAC.Address"), '-');
        } else if (placeholder == "%DVID") {
            expanded += onlyAllowed(properties->get("System.General.DeviceID"));
        } else {
            expanded += '%';
            at = percent + 1;
        }
    }
}

}  // namespace zav

#include "propertyprotocol/Utf8.h"

#include <algorithm>

namespace propertyprotocol {

std::size_t utf8SequenceLength(const std::string& text, std::size_t at) {
    const auto byte = [&text](std::size_t position) {
        return position < text.size() ? static_cast<unsigned char>(text[position]) : 0U;
    };
    const unsigned first = byte(at);
    if (first < 0x80) return at < text.size() ? 1 : 0;
    if (first < 0xc2 || first > 0xf4) return 0;
    // These limits of the second byte exclude overlong forms, surrogates and code points beyond U+10FFFF.
    const unsigned low = first == 0xe0 ? 0xa0 : first == 0xf0 ? 0x90 : 0x80;
    const unsigned high = first == 0xed ? 0x9f : first == 0xf4 ? 0x8f : 0xbf;
    if (byte(at + 1) < low || byte(at + 1) > high) return 0;
    const std::size_t length = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    for (std::size_t next = 2; next < length; ++next) {
        if (byte(at + next) < 0x80 || byte(at + next) > 0xbf) return 0;
    }
    return length;
}

bool isUtf8(const std::string& text) {
    const auto isAscii = [](char letter) { return static_cast<unsigned char>(letter) < 0x80; };
    const auto other = std::find_if_not(text.begin(), text.end(), isAscii);  // in most texts there is none
    for (auto at = static_cast<std::size_t>(other - text.begin()); at < text.size();) {
        const std::size_t length = utf8SequenceLength(text, at);
        if (length == 0) return false;
        at += length;
    }
    return true;
}

bool isUtf8WithoutNul(const std::string& text) { return text.find('\0') == std::string::npos && isUtf8(text); }

}  // namespace propertyprotocol

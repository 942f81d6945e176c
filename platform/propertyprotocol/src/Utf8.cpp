#include "propertyprotocol/Utf8.h"

namespace propertyprotocol {

// The limits of the second byte exclude overlong forms, surrogates and code points beyond U+10FFFF.
std::size_t utf8SequenceLength(const std::string& text, std::size_t at) {
    const auto byte = [&text](std::size_t position) {
        return position < text.size() ? static_cast<unsigned char>(text[position]) : 0U;
    };
    const unsigned first = byte(at);
    std::size_t length = 0;
    unsigned low = 0x80;
    unsigned high = 0xbf;
    if (first < 0x80) return at < text.size() ? 1 : 0;
    if (first >= 0xc2 && first <= 0xdf) {
        length = 2;
    } else if (first >= 0xe0 && first <= 0xef) {
        length = 3;
        if (first == 0xe0) low = 0xa0;
        if (first == 0xed) high = 0x9f;
    } else if (first >= 0xf0 && first <= 0xf4) {
        length = 4;
        if (first == 0xf0) low = 0x90;
        if (first == 0xf4) high = 0x8f;
    } else {
        return 0;
    }
    if (byte(at + 1) < low || byte(at + 1) > high) return 0;
    for (std::size_t next = 2; next < length; ++next) {
        if (byte(at + next) < 0x80 || byte(at + next) > 0xbf) return 0;
    }
    return length;
}

bool isUtf8(const std::string& text) {
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = utf8SequenceLength(text, at);
        if (length == 0) return false;
        at += length;
    }
    return true;
}

bool isUtf8WithoutNul(const std::string& text) { return text.find('\0') == std::string::npos && isUtf8(text); }

}  // namespace propertyprotocol

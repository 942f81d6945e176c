#include "service/Utf8.h"

#include <cstdio>

#include "debug/Debug.h"

namespace propertyservice {

// The bounds of the second byte exclude overlong forms, surrogates and what lies beyond U+10FFFF.
std::size_t utf8SequenceLength(const std::string& text, std::size_t at) {
    const auto byte = [&text](std::size_t position) {
        return position < text.size() ? static_cast<unsigned char>(text[position]) : 0U;
    };
    const unsigned first = byte(at);
    std::size_t length = 0;
    unsigned low = 0x80;
    unsigned high = 0xbf;
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

bool isCleanText(const std::string& text) {
    for (std::size_t at = 0; at < text.size();) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const std::size_t length = byte < 0x80 ? 1 : utf8SequenceLength(text, at);
        if (byte == 0 || length == 0) return false;
        at += length;
    }
    return true;
}

std::string visibleBeginning(const std::string& text, std::size_t most) {
    std::string begin;
    std::size_t at = 0;
    for (std::size_t count = 0; count < most && at < text.size(); ++count) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const std::size_t length = byte < 0x80 ? 1 : utf8SequenceLength(text, at);
        if (length == 0) break;
        const std::string character = text.substr(at, length);
        const auto last = static_cast<unsigned char>(character.back());
        if (byte == 0xc2 && last < 0xa0) {  // U+0080 to U+009F: terminals obey some of them
            char escape[7];
            std::snprintf(escape, sizeof escape, "\\u%04x", last);
            begin += escape;
        } else {
            begin += dbg::escapeControls(character);
        }
        at += length;
    }
    return at < text.size() ? begin + "..." : begin;
}

}  // namespace propertyservice

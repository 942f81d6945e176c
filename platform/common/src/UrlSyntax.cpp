#include "common/UrlSyntax.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>

namespace common {

namespace {

constexpr std::size_t longestUrl = 2048;

bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isBlankOrControl(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte <= 0x20 || byte == 0x7f;
}

// The length of "scheme" when the text begins with "scheme://", else 0.
std::size_t schemeLength(const std::string& text) {
    const auto end = text.find("://");
    if (end == std::string::npos || end == 0 || !isAlpha(text[0])) return 0;
    const auto belongs = [](char c) { return isAlpha(c) || isDigit(c) || c == '+' || c == '-' || c == '.'; };
    return std::all_of(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(end), belongs) ? end : 0;
}

std::size_t authorityBegin(const std::string& text) {
    const std::size_t scheme = schemeLength(text);
    return scheme == 0 ? 0 : scheme + 3;
}

// Whether a path step reads as "." or "..": also with its dots escaped, as every server reads them.
bool isDotStep(const std::string& step) {
    std::string plain;
    for (std::size_t at = 0; at < step.size(); ++at) {
        if (step[at] == '%' && at + 2 < step.size() && step[at + 1] == '2' && (step[at + 2] | 0x20) == 'e') {
            plain += '.';
            at += 2;
        } else {
            plain += step[at];
        }
    }
    return plain == "." || plain == "..";
}

bool hasDotStep(const std::string& path) {
    std::size_t begin = 0;
    for (;;) {
        const auto end = path.find('/', begin);
        if (isDotStep(path.substr(begin, end == std::string::npos ? end : end - begin))) return true;
        if (end == std::string::npos) return false;
        begin = end + 1;
    }
}

// Whether a path without a scheme was meant as "//user:password@host", after a misspelled one.
bool hasPassword(const std::string& path) {
    const auto at = path.rfind('@');
    return at != std::string::npos && path.find(':') < at;
}

bool isPort(const std::string& digits) {
    if (digits.empty() || digits.size() > 5 || !std::all_of(digits.begin(), digits.end(), isDigit)) return false;
    const unsigned long port = std::stoul(digits);
    return port >= 1 && port <= 65535;
}

// An escape or a byte outside ASCII in a host would mean one name here and another to the resolver.
bool isHostName(const std::string& host) {
    static const std::array<std::string, 3> placeholders{"%MACC", "%MACD", "%DVID"};
    for (std::size_t at = 0; at < host.size(); ++at) {
        const char c = host[at];
        if (isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_' || c == '~') continue;
        const auto stands = [&](const std::string& name) { return host.compare(at, name.size(), name) == 0; };
        const auto* const placeholder = std::find_if(placeholders.begin(), placeholders.end(), stands);
        if (placeholder == placeholders.end()) return false;
        at += placeholder->size() - 1;
    }
    return !host.empty();
}

bool isVersionSix(const std::string& address) {
    std::array<unsigned char, 16> bytes{};
    return ::inet_pton(AF_INET6, address.c_str(), bytes.data()) == 1;
}

// Splits "[userinfo@]host[:port]"; false when it is not one.
bool readAuthority(std::string text, UrlSyntax& url) {
    if (const auto at = text.find('@'); at != std::string::npos) {
        url.userInfo = text.substr(0, at);
        text.erase(0, at + 1);
        if (url.userInfo.find_first_of("[]") != std::string::npos || text.find('@') != std::string::npos) return false;
    }
    const bool bracketed = !text.empty() && text.front() == '[';
    const std::size_t end = bracketed ? text.find(']') + 1 : std::min(text.find(':'), text.size());
    url.host = text.substr(0, end);
    if (bracketed ? end < 3 || !isVersionSix(text.substr(1, end - 2)) : !isHostName(url.host)) return false;
    if (end == text.size()) return true;
    url.port = text.substr(end + 1);
    return text[end] == ':' && isPort(url.port);
}

}  // namespace

std::optional<UrlSyntax> parseUrl(const std::string& text) {
    if (text.empty() || text.size() > longestUrl || std::any_of(text.begin(), text.end(), isBlankOrControl)) {
        return std::nullopt;
    }
    UrlSyntax url;
    url.scheme = text.substr(0, schemeLength(text));
    const std::size_t begin = authorityBegin(text);
    const std::size_t end = std::min(text.find_first_of("/?#", begin), text.size());
    if (!readAuthority(text.substr(begin, end - begin), url)) return std::nullopt;
    url.path = text.substr(end, std::min(text.find_first_of("?#", end), text.size()) - end);
    if (hasDotStep(url.path)) return std::nullopt;
    if (url.scheme.empty() && hasPassword(url.path)) return std::nullopt;
    return url;
}

std::string withoutPassword(const std::string& url) {
    const auto syntax = parseUrl(url);
    if (syntax && syntax->userInfo.find(':') == std::string::npos) return url;
    // In a text that is not a URL everything up to the last "@" may have been meant as userinfo.
    const std::size_t end = syntax ? url.find_first_of("/?#", authorityBegin(url)) : std::string::npos;
    const std::size_t at = url.rfind('@', end);
    if (at == std::string::npos) return url;
    std::size_t colon = url.find(':');
    while (colon < at && url.compare(colon, 3, "://") == 0) colon = url.find(':', colon + 1);
    return (colon < at ? url.substr(0, colon + 1) : "") + "***" + url.substr(at);
}

}  // namespace common

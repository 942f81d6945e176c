#include "common/UrlSyntax.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstddef>

#include "common/Ascii.h"

namespace common {

namespace {

constexpr std::size_t maxUrlLength = 2048;

bool isBlankOrControl(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte <= 0x20 || byte == 0x7f;
}

// The length of SCHEME if the text begins with "SCHEME://", else 0.
std::size_t schemeLength(const std::string& text) {
    const auto end = text.find("://");
    if (end == std::string::npos || end == 0 || !isAsciiLetter(text[0])) return 0;
    const auto isSchemeChar = [](char c) { return isAsciiLetterOrDigit(c) || c == '+' || c == '-' || c == '.'; };
    return std::all_of(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(end), isSchemeChar) ? end : 0;
}

std::size_t authorityBegin(const std::string& text) {
    const std::size_t scheme = schemeLength(text);
    return scheme == 0 ? 0 : scheme + 3;
}

// Whether a segment of the path is "." or "..". Escaped dots count, because servers decode them.
bool hasDotSegment(const std::string& path) {
    std::string plain;
    for (std::size_t at = 0; at < path.size(); ++at) {
        const bool isEscapedDot =
            path.compare(at, 2, "%2") == 0 && at + 2 < path.size() && (path[at + 2] | 0x20) == 'e';
        plain += isEscapedDot ? '.' : path[at];
        if (isEscapedDot) at += 2;
    }
    plain += '/';
    return plain.find("/./") != std::string::npos || plain.find("/../") != std::string::npos;
}

// Whether the path of a URL without a scheme may contain a password, as in the misspelt "https//user:password@host".
bool mayContainPassword(const std::string& path) {
    const auto at = path.rfind('@');
    return at != std::string::npos && path.find(':') < at;
}

bool isPort(const std::string& digits) {
    if (digits.empty() || digits.size() > 5 || !std::all_of(digits.begin(), digits.end(), isAsciiDigit)) return false;
    const unsigned long port = std::stoul(digits);
    return port >= 1 && port <= 65535;
}

// Escapes and bytes outside ASCII are refused: the resolver might read another name than we do.
bool isHostName(const std::string& host) {
    static const std::array<std::string, 3> placeholders{"%MACC", "%MACD", "%DVID"};
    for (std::size_t at = 0; at < host.size(); ++at) {
        const char c = host[at];
        if (isAsciiLetterOrDigit(c) || c == '-' || c == '.' || c == '_' || c == '~') continue;
        const auto isHere = [&](const std::string& name) { return host.compare(at, name.size(), name) == 0; };
        const auto* const placeholder = std::find_if(placeholders.begin(), placeholders.end(), isHere);
        if (placeholder == placeholders.end()) return false;
        at += placeholder->size() - 1;
    }
    return !host.empty();
}

bool isIpv6Address(const std::string& address) {
    std::array<unsigned char, 16> bytes{};
    return ::inet_pton(AF_INET6, address.c_str(), bytes.data()) == 1;
}

// Splits "[userinfo@]host[:port]". Returns false if it is invalid.
bool parseAuthority(std::string text, UrlSyntax& url) {
    if (const auto at = text.find('@'); at != std::string::npos) {
        url.userInfo = text.substr(0, at);
        text.erase(0, at + 1);
        if (url.userInfo.find_first_of("[]") != std::string::npos || text.find('@') != std::string::npos) return false;
    }
    const bool bracketed = !text.empty() && text.front() == '[';
    const std::size_t end = bracketed ? text.find(']') + 1 : std::min(text.find(':'), text.size());
    url.host = text.substr(0, end);
    if (bracketed ? end < 3 || !isIpv6Address(text.substr(1, end - 2)) : !isHostName(url.host)) return false;
    if (end == text.size()) return true;
    url.port = text.substr(end + 1);
    return text[end] == ':' && isPort(url.port);
}

}  // namespace

std::optional<UrlSyntax> parseUrl(const std::string& text) {
    if (text.empty() || text.size() > maxUrlLength || std::any_of(text.begin(), text.end(), isBlankOrControl)) {
        return std::nullopt;
    }
    UrlSyntax url;
    url.scheme = text.substr(0, schemeLength(text));
    const std::size_t begin = authorityBegin(text);
    const std::size_t end = std::min(text.find_first_of("/?#", begin), text.size());
    if (!parseAuthority(text.substr(begin, end - begin), url)) return std::nullopt;
    url.path = text.substr(end, std::min(text.find_first_of("?#", end), text.size()) - end);
    if (hasDotSegment(url.path)) return std::nullopt;
    if (url.scheme.empty() && mayContainPassword(url.path)) return std::nullopt;
    return url;
}

std::string withoutPassword(const std::string& url) {
    const auto syntax = parseUrl(url);
    if (syntax && syntax->userInfo.find(':') == std::string::npos) return url;
    // If the text is not a URL, everything before the last "@" may have been meant as userinfo.
    const std::size_t end = syntax ? url.find_first_of("/?#", authorityBegin(url)) : std::string::npos;
    const std::size_t at = url.rfind('@', end);
    if (at == std::string::npos) return url;
    std::size_t colon = url.find(':');
    while (colon < at && url.compare(colon, 3, "://") == 0) colon = url.find(':', colon + 1);
    return (colon < at ? url.substr(0, colon + 1) : "") + "***" + url.substr(at);
}

}  // namespace common

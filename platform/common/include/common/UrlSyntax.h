// The URLs that this system accepts: [scheme://][userinfo@]host[:port][/path][?query][#fragment]. All code that
// downloads, stores or displays a URL checks it here. Pure functions; any thread.
#pragma once

#include <optional>
#include <string>

namespace common {

/// The parts of a URL, undecoded and without their separators; empty if missing.
struct UrlSyntax {
    std::string scheme;
    std::string userInfo;
    std::string host;  // an IPv6 address with its brackets
    std::string port;
    std::string path;  // begins with "/" unless it is empty
};

/// Returns nothing if the text is not an acceptable URL:
/// - it is empty, longer than 2,048 bytes, or contains blanks or control bytes;
/// - the host is neither an IPv6 address without a zone nor a name of letters, digits, "-._~" and the placeholders
///   %MACC, %MACD and %DVID;
/// - the port is not in 1 to 65535, or the userinfo contains "@", "[" or "]";
/// - a path segment is "." or "..", with escaped dots too;
/// - there is no scheme and the path has a ":" before an "@", as in the misspelt "https//user:password@host".
std::optional<UrlSyntax> parseUrl(const std::string& text);

/// The text with the password of its userinfo replaced by "***". If the text is not a URL, everything that may have
/// been meant as a password is replaced.
std::string withoutPassword(const std::string& url);

}  // namespace common

// What this system takes for a URL: [scheme://][userinfo@]host[:port][/path][?query][#fragment]. The one place where
// that is decided, for all code that downloads, stores or shows one. Pure functions, for any thread.
#pragma once

#include <optional>
#include <string>

namespace common {

/// The parts as they stand in the text, without the characters that separate them; empty where missing.
struct UrlSyntax {
    std::string scheme;
    std::string userInfo;
    std::string host;  // an IPv6 address with its brackets
    std::string port;
    std::string path;  // begins with "/" when there is one
};

/// Nothing for a text that is not a URL: empty or over 2,048 bytes, with blanks or control bytes; a host that is
/// neither a name of letters, digits and "-._~" (the placeholders %MACC, %MACD and %DVID included) nor an IPv6 address
/// without a zone; a port outside 1 to 65535; a second "@"; "." or ".." as a path step, also with escaped dots; without
/// a scheme a path with a ":" before an "@", such as "https//user:password@host".
std::optional<UrlSyntax> parseUrl(const std::string& text);

/// The text with the password of its userinfo replaced by "***". A text that is not a URL is shown with everything
/// hidden that may have been meant as a password.
std::string withoutPassword(const std::string& url);

}  // namespace common

// A URL and its parts: [scheme://][userinfo@]host[:port][/path/][file][?query][#fragment].
#pragma once

#include <stdexcept>
#include <string>

namespace zav {

/// The text is not an acceptable URL. what() is always the same and does not contain the text.
class UrlException : public std::runtime_error {
 public:
    UrlException() : std::runtime_error("Url is incorrect, please verify") {}
};

/// Value type. A missing scheme is "http", a missing port 0. The path begins and ends with "/". The fragment is
/// dropped. Only `userInfo` returns the userinfo.
class UrlInfo {
 public:
    /// Throws UrlException if common::parseUrl refuses the text. `UrlInfo(url.text())` equals `url` except for the
    /// userinfo.
    explicit UrlInfo(const std::string& url);

    const std::string& scheme() const { return scheme_; }
    const std::string& host() const { return host_; }  // an IPv6 address without brackets
    unsigned port() const { return port_; }            // 0: the default of the scheme
    const std::string& path() const { return path_; }
    const std::string& fileName() const { return fileName_; }  // undecoded; may be empty
    const std::string& query() const { return query_; }        // without the "?"
    const std::string& userInfo() const { return userInfo_; }  // "user:password", or empty
    void setFileName(const std::string& fileName) { fileName_ = fileName; }

    /// scheme "://" host, ":" port unless it is 0.
    std::string origin() const;

    /// The URL without userinfo and fragment: origin, path, file name, "?" query unless it is empty.
    std::string text() const;

    /// localFileName of the file name. May be empty.
    std::string localName() const;

 private:
    std::string scheme_, host_, path_, fileName_, query_, userInfo_;
    unsigned port_ = 0;
};

/// Turns a name from a server into a safe name for a local file: bytes outside [A-Za-z0-9._%+=,@~-] and a leading "-"
/// become "_", "." and ".." become "_" and "__", and everything after 200 bytes is cut. Decodes nothing.
std::string localFileName(const std::string& name);

}  // namespace zav

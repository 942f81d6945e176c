// A URL in its parts: [scheme://][userinfo@]host[:port][/path/][file][?query][#fragment].
#pragma once

#include <stdexcept>
#include <string>

namespace zav {

/// The text is not a URL that we use. what() is always the same; the log line around it names the URL where there is
/// one.
class UrlException : public std::runtime_error {
 public:
    UrlException() : std::runtime_error("Url is incorrect, please verify") {}
};

/// Value type. No scheme reads as "http", no port as 0; the path begins and ends with "/"; the fragment is dropped.
/// Userinfo stands in no text that this class gives but `userInfo`.
class UrlInfo {
 public:
    /// Throws UrlException for a text that common::parseUrl refuses. `UrlInfo(url.text())` equals `url`, but for
    /// userinfo.
    explicit UrlInfo(const std::string& url);

    const std::string& scheme() const { return scheme_; }
    const std::string& host() const { return host_; }  // IPv6 without its brackets
    unsigned port() const { return port_; }            // 0: the scheme's own
    const std::string& path() const { return path_; }
    const std::string& fileName() const { return fileName_; }  // as it stands in the URL, undecoded; may be empty
    const std::string& query() const { return query_; }        // without the "?"
    const std::string& userInfo() const { return userInfo_; }  // "user:password", or empty
    void setFileName(const std::string& fileName) { fileName_ = fileName; }

    /// scheme "://" host, ":" port when it is not 0.
    std::string origin() const;

    /// The whole URL without userinfo and fragment: origin, path, file name, "?" query when there is one.
    std::string text() const;

    /// The name of a local file for this URL's file name: see localFileName. May be empty.
    std::string localName() const;

 private:
    std::string scheme_, host_, path_, fileName_, query_, userInfo_;
    unsigned port_ = 0;
};

/// A name from a server as the name of a local file: bytes outside [A-Za-z0-9._%+=,@~-] and a leading "-" become "_",
/// "." and ".." become "_" and "__", at most 200 bytes, nothing is decoded. The one place where that is decided.
std::string localFileName(const std::string& name);

}  // namespace zav

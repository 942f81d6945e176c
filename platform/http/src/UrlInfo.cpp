#include "http/UrlInfo.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <memory>

#include "common/UrlSyntax.h"

namespace zav {

namespace {

constexpr std::size_t longestLocalName = 200;

bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

class Parsed {
 public:
    explicit Parsed(const std::string& text) {
        // PATH_AS_IS: otherwise dot steps would be resolved here and never be seen.
        if (handle_ == nullptr ||
            curl_url_set(handle_.get(), CURLUPART_URL, text.c_str(), CURLU_PATH_AS_IS) != CURLUE_OK)
            throw UrlException();
    }

    // The part as it stands in the text, empty when there is none.
    std::string part(CURLUPart which) const {
        char* text = nullptr;
        if (curl_url_get(handle_.get(), which, &text, 0) != CURLUE_OK) return "";
        const std::unique_ptr<char, decltype(&curl_free)> owner(text, &curl_free);
        return text;
    }

 private:
    std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> handle_{curl_url(), &curl_url_cleanup};
};

}  // namespace

UrlInfo::UrlInfo(const std::string& url) {
    const auto syntax = common::parseUrl(url);
    if (!syntax) throw UrlException();
    const std::string& scheme = syntax->scheme;
    scheme_ = scheme.empty() ? "http" : scheme;
    std::transform(scheme_.begin(), scheme_.end(), scheme_.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });

    // Every scheme is split by the rules of http; which ones are used is the downloader's business.
    const Parsed parsed("http://" + (scheme.empty() ? url : url.substr(scheme.size() + 3)));
    host_ = parsed.part(CURLUPART_HOST);
    if (host_.size() > 2 && host_.front() == '[') host_ = host_.substr(1, host_.size() - 2);
    if (!syntax->port.empty()) port_ = static_cast<unsigned>(std::stoul(syntax->port));
    userInfo_ = syntax->userInfo;
    query_ = parsed.part(CURLUPART_QUERY);
    const std::string whole = parsed.part(CURLUPART_PATH);
    if (host_.empty() || whole.empty()) throw UrlException();
    const auto slash = whole.rfind('/');
    path_ = whole.substr(0, slash + 1);
    fileName_ = whole.substr(slash + 1);
}

std::string UrlInfo::origin() const {
    std::string text = scheme_ + "://";
    text += host_.find(':') == std::string::npos ? host_ : "[" + host_ + "]";
    if (port_ != 0) text += ":" + std::to_string(port_);
    return text;
}

std::string UrlInfo::text() const { return origin() + path_ + fileName_ + (query_.empty() ? "" : "?" + query_); }

std::string UrlInfo::localName() const { return localFileName(fileName_); }

std::string localFileName(const std::string& name) {
    static const std::string others = "._%+=,@~-";
    std::string local = name.substr(0, longestLocalName);
    for (char& c : local) {
        if (!isAlpha(c) && !isDigit(c) && others.find(c) == std::string::npos) c = '_';
    }
    if (!local.empty() && local.front() == '-') local.front() = '_';
    if (local == "." || local == "..") local.assign(local.size(), '_');
    return local;
}

}  // namespace zav

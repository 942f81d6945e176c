#include "http/UrlInfo.h"

#include <algorithm>
#include <cctype>

#include "CurlPointers.h"
#include "common/Ascii.h"
#include "common/UrlSyntax.h"

namespace zav {

namespace {

constexpr std::size_t maxLocalNameLength = 200;

// Undecoded; empty if missing.
std::string partOf(const CurlUrl& url, CURLUPart which) {
    char* text = nullptr;
    if (curl_url_get(url.get(), which, &text, 0) != CURLUE_OK) return "";
    const CurlText owner(text);
    return text;
}

}  // namespace

UrlInfo::UrlInfo(const std::string& url) {
    const auto syntax = common::parseUrl(url);
    if (!syntax) throw UrlException();
    const std::string& scheme = syntax->scheme;
    scheme_ = scheme.empty() ? "http" : scheme;
    std::transform(scheme_.begin(), scheme_.end(), scheme_.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });

    // All schemes are parsed by the rules of http; the downloader refuses those it does not support.
    const std::string text = "http://" + (scheme.empty() ? url : url.substr(scheme.size() + 3));
    const CurlUrl parsed(curl_url());
    if (parsed == nullptr || curl_url_set(parsed.get(), CURLUPART_URL, text.c_str(), CURLU_PATH_AS_IS) != CURLUE_OK) {
        throw UrlException();
    }
    host_ = partOf(parsed, CURLUPART_HOST);
    if (host_.size() > 2 && host_.front() == '[') host_ = host_.substr(1, host_.size() - 2);
    if (!syntax->port.empty()) port_ = static_cast<unsigned>(std::stoul(syntax->port));
    userInfo_ = syntax->userInfo;
    query_ = partOf(parsed, CURLUPART_QUERY);
    const std::string whole = partOf(parsed, CURLUPART_PATH);
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
    static const std::string punctuation = "._%+=,@~-";
    std::string local = name.substr(0, maxLocalNameLength);
    for (char& c : local) {
        if (!common::isAsciiLetterOrDigit(c) && punctuation.find(c) == std::string::npos) c = '_';
    }
    if (!local.empty() && local.front() == '-') local.front() = '_';
    if (local == "." || local == "..") local.assign(local.size(), '_');
    return local;
}

}  // namespace zav

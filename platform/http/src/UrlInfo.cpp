#include "http/UrlInfo.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <memory>

namespace zav {

namespace {

constexpr std::size_t longestUrl = 2048;
constexpr std::size_t longestLocalName = 200;

bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The length of "scheme" when the text begins with "scheme://", else 0.
std::size_t schemeLength(const std::string& text) {
    const auto end = text.find("://");
    if (end == std::string::npos || end == 0 || !isAlpha(text[0])) return 0;
    const auto belongs = [](char c) { return isAlpha(c) || isDigit(c) || c == '+' || c == '-' || c == '.'; };
    return std::all_of(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(end), belongs) ? end : 0;
}

bool isBlankOrControl(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte <= 0x20 || byte == 0x7f;
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

unsigned portOf(const std::string& digits) {
    if (digits.empty()) return 0;
    if (digits.size() > 5 || !std::all_of(digits.begin(), digits.end(), isDigit)) throw UrlException();
    const unsigned long port = std::stoul(digits);
    if (port < 1 || port > 65535) throw UrlException();
    return static_cast<unsigned>(port);
}

}  // namespace

UrlInfo::UrlInfo(const std::string& url) {
    if (url.empty() || url.size() > longestUrl || std::any_of(url.begin(), url.end(), isBlankOrControl)) {
        throw UrlException();
    }
    const std::size_t length = schemeLength(url);
    scheme_ = length == 0 ? "http" : url.substr(0, length);
    std::transform(scheme_.begin(), scheme_.end(), scheme_.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const std::string rest = length == 0 ? url : url.substr(length + 3);

    // Every scheme is split by the rules of http; which ones are used is the downloader's business. What libcurl is
    // lenient about is refused before it sees the text: an empty host, and a colon without a port.
    const std::string authority = rest.substr(0, rest.find_first_of("/?#"));
    if (authority.empty() || authority.back() == ':' || authority.back() == '@') throw UrlException();
    const Parsed parsed("http://" + rest);

    host_ = parsed.part(CURLUPART_HOST);
    if (host_.size() > 2 && host_.front() == '[') host_ = host_.substr(1, host_.size() - 2);
    if (const std::string zone = parsed.part(CURLUPART_ZONEID); !zone.empty()) host_ += "%25" + zone;
    if (host_.empty()) throw UrlException();
    port_ = portOf(parsed.part(CURLUPART_PORT));
    if (port_ == 0 && authority.find(']') == std::string::npos &&
        authority.find(':', authority.find('@') == std::string::npos ? 0 : authority.rfind('@')) != std::string::npos) {
        throw UrlException();
    }

    userInfo_ = parsed.part(CURLUPART_USER);
    if (const std::string password = parsed.part(CURLUPART_PASSWORD); !password.empty()) userInfo_ += ":" + password;
    query_ = parsed.part(CURLUPART_QUERY);
    const std::string whole = parsed.part(CURLUPART_PATH);
    if (whole.empty() || hasDotStep(whole)) throw UrlException();
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

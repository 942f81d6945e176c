#include "Transfer.h"

#include <openssl/ssl.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

#include "Pace.h"

namespace zav {

namespace {

constexpr long connectSeconds = 30;
constexpr long stallSeconds = 120;

constexpr std::uint64_t discardedAtMost = 64 * 1024;        // of the page that comes with another answer
constexpr std::uint64_t limitAskedEvery = 4 * 1024 * 1024;  // the free space changes while a file grows

struct ListFree {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

long asLong(curl_off_t value) {
    return static_cast<long>(std::min<curl_off_t>(value, std::numeric_limits<long>::max()));
}

// Sets options one after the other and keeps the first that is refused: a transfer without its checks must not run.
class Options {
 public:
    explicit Options(CURL* handle) : handle_(handle) {}
    template <typename T>
    Options& set(CURLoption option, T value) {
        if (result_ == CURLE_OK) result_ = curl_easy_setopt(handle_, option, value);
        return *this;
    }
    CURLcode result() const { return result_; }

 private:
    CURL* const handle_;
    CURLcode result_ = CURLE_OK;
};

bool isRedirect(long status) {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

// Where `location` leads from `base`; the text itself when it leads nowhere, for the next step to refuse.
std::string resolved(const std::string& base, const std::string& location) {
    const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), &curl_url_cleanup);
    char* text = nullptr;
    if (location.empty() || url == nullptr || curl_url_set(url.get(), CURLUPART_URL, base.c_str(), 0) != CURLUE_OK ||
        curl_url_set(url.get(), CURLUPART_URL, location.c_str(), CURLU_NON_SUPPORT_SCHEME | CURLU_URLENCODE) !=
            CURLUE_OK ||
        curl_url_get(url.get(), CURLUPART_URL, &text, 0) != CURLUE_OK) {
        return location;
    }
    const std::unique_ptr<char, decltype(&curl_free)> owner(text, &curl_free);
    return text;
}

struct ContentRange {
    std::uint64_t first;
    std::optional<std::uint64_t> total;  // nothing for "*"
};

std::optional<std::uint64_t> number(const std::string& digits) {
    if (digits.empty() || digits.size() > 18 || digits.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    return std::stoull(digits);
}

// "bytes FIRST-LAST/TOTAL"
std::optional<ContentRange> parseContentRange(const std::string& text) {
    const std::string unit = "bytes ";
    const auto dash = text.find('-');
    const auto slash = text.find('/');
    if (text.compare(0, unit.size(), unit) != 0 || dash == std::string::npos || slash == std::string::npos) {
        return std::nullopt;
    }
    const auto first = number(text.substr(unit.size(), dash - unit.size()));
    if (!first) return std::nullopt;
    return ContentRange{*first, number(text.substr(slash + 1))};
}

}  // namespace

Transfer::Transfer(Curl& curl, const Security& security, PartialFile& file, const SizeLimit& limit,
                   std::chrono::steady_clock::time_point begun)
    : state_(*curl.state_),
      trusted_(security.trustedCertificates()),
      handle_(state_.handleFor(trusted_)),
      file_(file),
      limit_(limit),
      begun_(begun) {}

void Transfer::useCredentials(const Credentials& credentials, unsigned long schemes) {
    credentials_ = credentials;
    schemes_ = schemes;
}

CURLcode Transfer::setOptions(const std::string& url) {
    Options options(handle_);
    options.set(CURLOPT_URL, url.c_str())
        .set(CURLOPT_USERAGENT, "zav")
        .set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1})
        .set(CURLOPT_PROTOCOLS_STR, "http,https")
        .set(CURLOPT_FOLLOWLOCATION, 0L)
        .set(CURLOPT_NETRC, long{CURL_NETRC_IGNORED})
        .set(CURLOPT_PROXY, "")  // not even what the environment names
        .set(CURLOPT_NOSIGNAL, 1L)
        .set(CURLOPT_QUICK_EXIT, 1L)  // never wait for a name resolution that was given up
        .set(CURLOPT_CONNECTTIMEOUT, connectSeconds)
        .set(CURLOPT_LOW_SPEED_LIMIT, 1L)
        .set(CURLOPT_LOW_SPEED_TIME, stallSeconds)
        .set(CURLOPT_TCP_KEEPALIVE, 1L)
        .set(CURLOPT_BUFFERSIZE, bufferSize_)
        .set(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2})
        .set(CURLOPT_SSL_VERIFYPEER, 1L)
        .set(CURLOPT_SSL_VERIFYHOST, 2L)
        // What is trusted comes with the callback, already parsed.
        .set(CURLOPT_CAINFO, static_cast<char*>(nullptr))
        .set(CURLOPT_CAPATH, static_cast<char*>(nullptr))
        .set(CURLOPT_SSL_CTX_FUNCTION, &Transfer::tlsCallback)
        .set(CURLOPT_SSL_CTX_DATA, this)
        .set(CURLOPT_WRITEFUNCTION, &Transfer::bodyCallback)
        .set(CURLOPT_WRITEDATA, this)
        .set(CURLOPT_NOPROGRESS, 0L)
        .set(CURLOPT_XFERINFOFUNCTION, &Transfer::progressCallback)
        .set(CURLOPT_XFERINFODATA, this);
    if (credentials_) {
        options.set(CURLOPT_HTTPAUTH, schemes_)
            .set(CURLOPT_USERNAME, credentials_->user.c_str())
            .set(CURLOPT_PASSWORD, credentials_->password.c_str());
    }
    return options.result();
}

int Transfer::run(const std::string& url) {
    if (handle_ == nullptr) return CURLE_OUT_OF_MEMORY;
    curl_easy_reset(handle_);  // options only; open connections stay
    CURLcode result = setOptions(url);
    std::unique_ptr<curl_slist, ListFree> headers;
    if (!resumed_.empty()) {
        headers.reset(curl_slist_append(nullptr, ("If-Range: " + resumed_).c_str()));
        const std::string range = std::to_string(file_.size()) + "-";
        Options options(handle_);
        options.set(CURLOPT_HTTPHEADER, headers.get()).set(CURLOPT_RANGE, range.c_str());
        if (result == CURLE_OK) result = headers == nullptr ? CURLE_OUT_OF_MEMORY : options.result();
    }
    if (result == CURLE_OK) result = perform(url);
    curl_easy_reset(handle_);  // nothing of ours, credentials least of all, stays behind in the handle
    state_.httpCode = status_;
    if (failure_) std::rethrow_exception(failure_);
    return result;
}

CURLcode Transfer::perform(const std::string& url) {
    offset_ = file_.size();
    const CURLcode result = curl_easy_perform(handle_);
    curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &status_);
    long offered = 0;
    curl_easy_getinfo(handle_, CURLINFO_HTTPAUTH_AVAIL, &offered);
    offeredSchemes_ = static_cast<unsigned long>(offered);
    if (isRedirect(status_)) redirection_ = resolved(url, header("Location"));
    if (!bodyBegun_ && (result == CURLE_OK || status_ == 200)) {
        try {
            beginBody();  // an empty one, or one that never came
        } catch (...) {
            failure_ = std::current_exception();
        }
    }
    // A server may send less of the rest than there is.
    if (result == CURLE_OK && !ended_ && total_ && file_.size() != *total_) {
        ended_ = file_.size() < *total_ ? CURLE_PARTIAL_FILE : CURLE_RANGE_ERROR;
    }
    return ended_.value_or(result);
}

std::string Transfer::header(const char* name) const {
    curl_header* found = nullptr;
    return curl_easy_header(handle_, name, 0, CURLH_HEADER, -1, &found) == CURLHE_OK ? found->value : "";
}

void Transfer::beginBody() {
    bodyBegun_ = true;
    curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &status_);
    bool rest = false;
    if (!resumed_.empty() && status_ == 206) {
        const auto range = parseContentRange(header("Content-Range"));
        rest = range && range->first == offset_;
        if (rest) total_ = range->total;
        if (!rest) ended_ = CURLE_RANGE_ERROR;
    }
    kept_ = status_ == 200 || rest;
    if (!kept_) return;
    if (!rest) {
        if (file_.size() != 0) file_.restart();
        offset_ = 0;
    }

    // A weak ETag is no promise about bytes, and If-Range takes none.
    validator_ = header("ETag");
    if (validator_.empty() || validator_.front() != '"') validator_ = header("Last-Modified");

    curl_off_t announced = -1;
    curl_easy_getinfo(handle_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
    checkSize(offset_ + static_cast<std::uint64_t>(std::max<curl_off_t>(announced, 0)));
}

// Ends the transfer when the file would be larger than it may be.
void Transfer::checkSize(std::uint64_t size) {
    if (size > askedUpTo_) {
        allowed_ = limit_();
        askedUpTo_ = file_.size() + limitAskedEvery;
    }
    if (size > allowed_) ended_ = CURLE_FILESIZE_EXCEEDED;
}

std::size_t Transfer::onBody(const char* data, std::size_t length) {
    if (!bodyBegun_) beginBody();
    if (ended_) return 0;
    if (!kept_) {
        discarded_ += length;
        // The answer is known: its page need not be read to an end that may never come.
        if (discarded_ > discardedAtMost) ended_ = CURLE_OK;
        return ended_ ? 0 : length;
    }
    checkSize(file_.size() + length);
    if (ended_) return 0;
    file_.append(data, length);
    return length;
}

int Transfer::onProgress(curl_off_t total, curl_off_t now) {
    const auto offset = static_cast<curl_off_t>(offset_);
    if (!keepsPace(std::chrono::steady_clock::now() - begun_, offset + now)) ended_ = CURLE_OPERATION_TIMEDOUT;
    state_.report(total > 0 ? asLong(offset + total) : 0, asLong(offset + now), 0, 0);
    return ended_ ? 1 : 0;
}

std::size_t Transfer::bodyCallback(char* data, std::size_t size, std::size_t count, void* self) {
    auto* const transfer = static_cast<Transfer*>(self);
    try {
        return transfer->onBody(data, size * count);
    } catch (...) {
        transfer->failure_ = std::current_exception();
        return 0;
    }
}

int Transfer::progressCallback(void* self, curl_off_t total, curl_off_t now, curl_off_t /*upTotal*/,
                               curl_off_t /*upNow*/) {
    return static_cast<Transfer*>(self)->onProgress(total, now);
}

CURLcode Transfer::tlsCallback(CURL* /*handle*/, void* context, void* self) {
    try {
        X509_STORE* const store = static_cast<Transfer*>(self)->trusted_->store();
        SSL_CTX_set1_cert_store(static_cast<SSL_CTX*>(context), store);
        return CURLE_OK;
    } catch (...) {
        return CURLE_OUT_OF_MEMORY;
    }
}

}  // namespace zav

#include "Transfer.h"

#include <strings.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

#include "ContentCoding.h"
#include "CurlOptions.h"
#include "Pace.h"
#include "debug/Debug.h"

namespace zav {

namespace {

constexpr long ordinaryBuffer = 16L * 1024;
constexpr long largeBuffer = 512L * 1024;
constexpr std::size_t mostHeaderBytes = 256UL * 1024;       // of one transfer, 1xx answers and trailers included
constexpr std::uint64_t discardedAtMost = 64 * 1024;        // of the page that comes with another answer
constexpr std::uint64_t limitAskedEvery = 4 * 1024 * 1024;  // the free space changes while a file grows

struct ListFree {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

long asLong(curl_off_t value) {
    return static_cast<long>(std::min<curl_off_t>(value, std::numeric_limits<long>::max()));
}

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

// libcurl 7.88 leaves the line's end in an empty value.
std::string trimmed(const std::string& value) {
    const char* const blanks = " \t\r\n";
    const auto first = value.find_first_not_of(blanks);
    return first == std::string::npos ? "" : value.substr(first, value.find_last_not_of(blanks) + 1 - first);
}

bool isChunked(const std::string& codings) { return strcasecmp(codings.c_str(), "chunked") == 0; }

// Whether libcurl takes the chunks of a body with this header line apart. It looks at one line only, not at those that
// continue it.
bool announcesChunks(const std::string& line) {
    const std::string name = "Transfer-Encoding:";
    return strncasecmp(line.c_str(), name.c_str(), name.size()) == 0 && isChunked(trimmed(line.substr(name.size())));
}

// A value from a server, short enough for a log line.
std::string shortened(const std::string& text) { return text.size() <= 100 ? text : text.substr(0, 100) + "..."; }

}  // namespace

Transfer::Transfer(Curl& curl, const Security& security, const TransferOrder& order)
    : state_(*curl.state_),
      trusted_(security.trustedCertificates()),
      handle_(state_.handleFor(trusted_)),
      order_(order) {}

void Transfer::useCredentials(const Credentials& credentials, unsigned long schemes) {
    credentials_ = credentials;
    schemes_ = schemes;
}

CURLcode Transfer::setOptions(const std::string& url, const curl_slist* headers) {
    CurlOptions options(handle_);
    options.set(CURLOPT_URL, url.c_str())
        .set(CURLOPT_USERAGENT, "zav")
        .set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1})
        .set(CURLOPT_PROTOCOLS_STR, "http,https")
        .set(CURLOPT_FOLLOWLOCATION, 0L)
        .set(CURLOPT_NETRC, long{CURL_NETRC_IGNORED})
        .set(CURLOPT_PROXY, "")  // not even what the environment names
        .set(CURLOPT_NOSIGNAL, 1L)
        .set(CURLOPT_MAXCONNECTS, 1L)  // only one is looked at before it is used again
        .set(CURLOPT_QUICK_EXIT, 1L)   // never wait for a name resolution that was given up
        .set(CURLOPT_CONNECTTIMEOUT, static_cast<long>(state_.settings.connectTimeout.count()))
        .set(CURLOPT_LOW_SPEED_LIMIT, 1L)
        .set(CURLOPT_LOW_SPEED_TIME, static_cast<long>(state_.settings.stallTimeout.count()))
        .set(CURLOPT_TCP_KEEPALIVE, 1L)
        .set(CURLOPT_BUFFERSIZE, order_.large ? largeBuffer : ordinaryBuffer)
        .set(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2})
        .set(CURLOPT_SSL_VERIFYPEER, 1L)
        .set(CURLOPT_SSL_VERIFYHOST, 2L)
        // What is trusted comes with the callback, already parsed.
        .set(CURLOPT_CAINFO, static_cast<char*>(nullptr))
        .set(CURLOPT_CAPATH, static_cast<char*>(nullptr))
        .set(CURLOPT_SSL_CTX_FUNCTION, &Transfer::tlsCallback)
        .set(CURLOPT_SSL_CTX_DATA, this)
        .set(CURLOPT_HEADERFUNCTION, &Transfer::headerCallback)
        .set(CURLOPT_HEADERDATA, this)
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
    if (headers != nullptr) {
        const std::string range = std::to_string(order_.file.size()) + "-";
        options.set(CURLOPT_HTTPHEADER, headers).set(CURLOPT_RANGE, range.c_str());
    }
    return options.result();
}

int Transfer::run(const std::string& url) {
    if (handle_ == nullptr) return CURLE_OUT_OF_MEMORY;
    if (state_.isOverdue()) return CURLE_ABORTED_BY_CALLBACK;
    curl_easy_reset(handle_);
    std::unique_ptr<curl_slist, ListFree> headers;
    if (resumed_) {
        headers.reset(curl_slist_append(nullptr, ("If-Range: " + resumed_->version.strongValidator()).c_str()));
        if (headers == nullptr) return CURLE_OUT_OF_MEMORY;
    }
    CURLcode result = setOptions(url, headers.get());
    if (result == CURLE_OK) result = perform(url);
    // Nothing of ours, credentials least of all, stays behind in the handle.
    if (result == CURLE_OK && isUsedUp()) {
        state_.keepHandle(tls_);
    } else {
        state_.dropHandle();
    }
    state_.httpCode = tookRest() ? 200 : status_;
    if (failure_) std::rethrow_exception(failure_);
    return ended_.value_or(result);
}

// Whether all that the server sent belonged to the answer, as far as one can tell. What follows an answer without a
// body may be a body all the same, and must not be read as the next answer.
bool Transfer::isUsedUp() const { return !ended_ && !failure_ && (kept_ || !redirection_.empty() || status_ == 401); }

// libcurl's own result; `ended_` is what we make of it.
CURLcode Transfer::perform(const std::string& url) {
    offset_ = order_.file.size();
    reached_.url = url;
    const CURLcode result = curl_easy_perform(handle_);
    curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &status_);
    long offered = 0;
    curl_easy_getinfo(handle_, CURLINFO_HTTPAUTH_AVAIL, &offered);
    offeredSchemes_ = static_cast<unsigned long>(offered);
    try {
        conclude(result, url);
    } catch (...) {
        failure_ = std::current_exception();
    }
    return result;
}

void Transfer::conclude(CURLcode result, const std::string& url) {
    if (failure_) return;
    if (!headersComplete_) {
        // libcurl takes a connection that ends inside the headers for the whole answer.
        if (result == CURLE_OK && !ended_) ended_ = CURLE_RECV_ERROR;
        if (result == CURLE_OUT_OF_MEMORY && status_ != 0) {  // libcurl's word for a line of more than 100 KiB
            dbg::Debug::warning() << "A header of the answer is too long, or memory ran out; download failed"
                                  << std::endl;
        }
        return;
    }
    if (isRedirect(status_)) redirection_ = resolved(url, header("Location"));
    // An empty body, or one that never came.
    if (!bodyBegun_ && (result == CURLE_OK || status_ == 200)) beginBody();
    if (result != CURLE_OK || ended_ || !kept_) return;
    if (!isEndConfirmed(url)) {
        dbg::Debug::warning() << "The TLS connection was cut before the answer's end" << std::endl;
        ended_ = CURLE_PARTIAL_FILE;
    }
    if (ended_ || !end_) return;
    if (order_.file.size() != *end_) return endAsMisfit();
    // A server may send less of the rest than there is.
    if (*end_ != reached_.total) ended_ = CURLE_PARTIAL_FILE;
}

// Over TLS somebody on the line may cut the connection, but cannot pretend that the server ended it.
bool Transfer::isEndConfirmed(const std::string& url) const {
    if (strncasecmp(url.c_str(), "https:", 6) != 0) return true;
    curl_off_t announced = -1;
    curl_easy_getinfo(handle_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
    return announced >= 0 || chunked_ || state_.closeNotify.wasReceivedOn(tls_);
}

std::string Transfer::header(const char* name) const {
    curl_header* found = nullptr;
    return curl_easy_header(handle_, name, 0, CURLH_HEADER, -1, &found) == CURLHE_OK ? trimmed(found->value) : "";
}

// All headers of the name, separated by commas.
std::string Transfer::headers(const char* name) const {
    std::string values;
    curl_header* found = nullptr;
    for (std::size_t at = 0; curl_easy_header(handle_, name, at, CURLH_HEADER, -1, &found) == CURLHE_OK; ++at) {
        const std::string value = trimmed(found->value);
        if (!values.empty() && !value.empty()) values += ",";
        values += value;
    }
    return values;
}

FileVersion Transfer::fileVersion() const { return {headers("ETag"), headers("Last-Modified"), headers("Date")}; }

void Transfer::beginBody() {
    bodyBegun_ = true;
    curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &status_);
    curl_off_t announced = -1;
    curl_easy_getinfo(handle_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
    if (resumed_ && (status_ == 416 || (status_ == 206 && !continuesFile(announced)))) return endAsMisfit();
    kept_ = status_ == 200 || (resumed_ && status_ == 206);
    if (!kept_) return;
    if (status_ == 200) beginWhole(announced);
    checkCodings();
    if (ended_) return;
    checkSize(offset_ + static_cast<std::uint64_t>(std::max<curl_off_t>(announced, 0)));
}

void Transfer::checkCodings() {
    const auto refuse = [this](const char* kind, const std::string& codings) {
        dbg::Debug::warning() << "The answer has the " << kind << " coding '" << shortened(codings)
                              << "', which nobody asked for; download failed" << std::endl;
        ended_ = CURLE_BAD_CONTENT_ENCODING;
    };
    const std::string content = headers("Content-Encoding");
    const std::string transfer = headers("Transfer-Encoding");
    if (!isAcceptedCoding(content, order_.fileName)) {
        refuse("content", content);
    } else if (!transfer.empty() && !(chunked_ && isChunked(transfer))) {
        refuse("transfer", transfer);  // libcurl would unpack some of them, and not notice where one is cut short
    }
}

void Transfer::beginWhole(curl_off_t announced) {
    if (order_.file.size() != 0) order_.file.restart();
    offset_ = 0;
    reached_.version = fileVersion();
    if (announced >= 0) reached_.total = static_cast<std::uint64_t>(announced);
}

// Whether a 206 carries exactly the bytes that follow those in the file.
bool Transfer::continuesFile(curl_off_t announced) {
    const auto range = parseContentRange(headers("Content-Range"));
    if (!range || range->first != offset_ || !resumed_->version.isSameAs(fileVersion())) return false;
    if (resumed_->total && *resumed_->total != range->total) return false;
    if (announced >= 0 && static_cast<std::uint64_t>(announced) != range->last + 1 - range->first) return false;
    reached_.version = resumed_->version;
    reached_.total = range->total;
    end_ = range->last + 1;
    return true;
}

void Transfer::endAsMisfit() {
    misfit_ = true;
    ended_ = CURLE_RANGE_ERROR;
}

// Ends the transfer when the file would be larger than it may be.
void Transfer::checkSize(std::uint64_t size) {
    if (size > recheckAt_) {
        allowed_ = order_.limit();
        recheckAt_ = order_.file.size() + limitAskedEvery;
    }
    if (size > allowed_) ended_ = CURLE_FILESIZE_EXCEEDED;
}

void Transfer::beginAnswer() {
    headersComplete_ = false;
    chunked_ = false;
    handedOver_ = 0;
    // libcurl knows it only while it transfers.
    curl_tlssessioninfo* session = nullptr;
    curl_easy_getinfo(handle_, CURLINFO_TLS_SSL_PTR, &session);
    tls_ =
        session == nullptr || session->backend == CURLSSLBACKEND_NONE ? nullptr : static_cast<SSL*>(session->internals);
}

std::size_t Transfer::onHeader(const char* data, std::size_t length) {
    const std::string line(data, length);
    if (line.compare(0, 5, "HTTP/") == 0) beginAnswer();
    if (line == "\r\n" || line == "\n") headersComplete_ = true;
    if (!headersComplete_ && announcesChunks(line)) chunked_ = true;
    headerBytes_ += length;
    if (headerBytes_ <= mostHeaderBytes) return length;
    if (!ended_) {
        dbg::Debug::warning() << "The answer's headers are larger than 256 KiB, download failed" << std::endl;
        ended_ = CURLE_WEIRD_SERVER_REPLY;
    }
    return 0;
}

std::size_t Transfer::onBody(const char* data, std::size_t length) {
    handedOver_ += length;
    if (!bodyBegun_) beginBody();
    if (ended_) return 0;
    if (!kept_) {
        discarded_ += length;
        // The answer is known: its page need not be read to an end that may never come.
        if (discarded_ > discardedAtMost) ended_ = CURLE_OK;
        return ended_ ? 0 : length;
    }
    if (end_ && order_.file.size() + length > *end_) endAsMisfit();
    if (!ended_) checkSize(order_.file.size() + length);
    if (ended_) return 0;
    order_.file.append(data, length);
    received_ += length;
    return length;
}

int Transfer::onProgress(curl_off_t total, curl_off_t now) {
    const auto offset = static_cast<curl_off_t>(offset_);
    const auto elapsed = state_.settings.steadyNow() - order_.begun;
    if (!ended_ && !keepsPace(elapsed, static_cast<std::int64_t>(order_.received + received_))) {
        ended_ = CURLE_OPERATION_TIMEDOUT;
    }
    // libcurl itself reads the page of a 401 that it means to answer.
    const std::uint64_t read = static_cast<std::uint64_t>(std::max<curl_off_t>(now, 0));
    if (!ended_ && read > handedOver_ + discardedAtMost) ended_ = CURLE_OK;
    if (!ended_ && state_.isOverdue()) ended_ = CURLE_ABORTED_BY_CALLBACK;
    state_.report(total > 0 ? asLong(offset + total) : 0, asLong(offset + now), 0, 0);
    return ended_ ? 1 : 0;
}

std::size_t Transfer::headerCallback(char* data, std::size_t size, std::size_t count, void* self) {
    return static_cast<Transfer*>(self)->onHeader(data, size * count);
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
        static_cast<Transfer*>(self)->state_.closeNotify.watch(static_cast<SSL_CTX*>(context));
        return CURLE_OK;
    } catch (...) {
        return CURLE_OUT_OF_MEMORY;
    }
}

}  // namespace zav

#include "Transfer.h"

#include <strings.h>

#include <algorithm>

#include "ContentCoding.h"
#include "CurlPointers.h"
#include "debug/Debug.h"

namespace zav {

namespace {

constexpr long normalBufferSize = 16L * 1024;
constexpr long largeBufferSize = 512L * 1024;
constexpr std::size_t maxHeaderBytes = 256UL * 1024;           // of one transfer, 1xx responses and trailers included
constexpr std::uint64_t maxDiscardedBytes = 64 * 1024;         // of a body that is not stored
constexpr std::uint64_t limitCheckInterval = 4 * 1024 * 1024;  // bytes of the file

// 300, 304 and 305 may have a Location too, but do not repeat the request there.
bool isRedirect(long status) { return (status >= 301 && status <= 303) || status == 307 || status == 308; }

// `location` relative to `base`. If that is not a URL, `location` itself, which the caller refuses.
std::string resolve(const std::string& base, const std::string& location) {
    const CurlUrl url(curl_url());
    char* text = nullptr;
    if (location.empty() || url == nullptr || curl_url_set(url.get(), CURLUPART_URL, base.c_str(), 0) != CURLUE_OK ||
        curl_url_set(url.get(), CURLUPART_URL, location.c_str(), CURLU_NON_SUPPORT_SCHEME | CURLU_URLENCODE) !=
            CURLUE_OK ||
        curl_url_get(url.get(), CURLUPART_URL, &text, 0) != CURLUE_OK) {
        return location;
    }
    const CurlText owner(text);
    return text;
}

// libcurl 7.88 keeps the line break of an empty value.
std::string trimmed(const std::string& value) {
    const char* const blanks = " \t\r\n";
    const auto first = value.find_first_not_of(blanks);
    return first == std::string::npos ? "" : value.substr(first, value.find_last_not_of(blanks) + 1 - first);
}

bool isChunked(const std::string& codings) { return strcasecmp(codings.c_str(), "chunked") == 0; }

// Whether libcurl decodes a chunked body because of this header line. It ignores continuation lines.
bool isChunkedHeader(const std::string& line) {
    const std::string name = "Transfer-Encoding:";
    return strncasecmp(line.c_str(), name.c_str(), name.size()) == 0 && isChunked(trimmed(line.substr(name.size())));
}

// Limits a value from a server for the log.
std::string shortened(const std::string& text) { return text.size() <= 100 ? text : text.substr(0, 100) + "..."; }

}  // namespace

bool keepsPace(std::chrono::steady_clock::duration elapsed, std::uint64_t bytes) {
    constexpr std::uint64_t minBytesPerSecond = 1024;
    constexpr std::chrono::seconds allowance{300};
    return elapsed <= allowance + std::chrono::seconds(bytes / minBytesPerSecond);
}

Transfer::Transfer(Curl::State& client, const Security& security, const TransferContext& context,
                   std::shared_ptr<const DeviceIdentity> identity)
    : state_(client),
      trusted_(security.trustedCertificates()),
      identity_(std::move(identity)),
      handle_(state_.handleFor(trusted_, identity_)),
      context_(context) {}

void Transfer::useCredentials(const Credentials& credentials, unsigned long schemes) {
    credentials_ = credentials;
    schemes_ = schemes;
}

// After the first option that fails it sets no others: a transfer must not run without all its options.
CURLcode Transfer::setOptions(const std::string& url, const curl_slist* headers) {
    CURLcode result = CURLE_OK;
    const auto set = [&](CURLoption option, auto value) {
        if (result != CURLE_OK) return;
        result = curl_easy_setopt(handle_, option, value);
        if (result == CURLE_OK) return;
        const curl_easyoption* const known = curl_easy_option_by_id(option);
        dbg::Debug::error() << "HTTP option " << (known == nullptr ? "?" : known->name)
                            << " cannot be set: " << curl_easy_strerror(result) << std::endl;
    };
    set(CURLOPT_URL, url.c_str());
    set(CURLOPT_USERAGENT, "zav");
    set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_FOLLOWLOCATION, 0L);
    set(CURLOPT_NETRC, long{CURL_NETRC_IGNORED});
    set(CURLOPT_PROXY, "");  // no proxy, not even from the environment
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_MAXCONNECTS, 1L);  // handleFor checks only one
    set(CURLOPT_QUICK_EXIT, 1L);   // do not wait for the thread of an aborted name lookup
    set(CURLOPT_CONNECTTIMEOUT, static_cast<long>(state_.settings.connectTimeout.count()));
    set(CURLOPT_LOW_SPEED_LIMIT, 1L);
    set(CURLOPT_LOW_SPEED_TIME, static_cast<long>(state_.settings.stallTimeout.count()));
    set(CURLOPT_TCP_KEEPALIVE, 1L);
    set(CURLOPT_BUFFERSIZE, context_.large ? largeBufferSize : normalBufferSize);
    set(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
    set(CURLOPT_SSL_VERIFYPEER, 1L);
    set(CURLOPT_SSL_VERIFYHOST, 2L);
    // tlsCallback sets the trusted certificates, already parsed.
    set(CURLOPT_CAINFO, static_cast<char*>(nullptr));
    set(CURLOPT_CAPATH, static_cast<char*>(nullptr));
    set(CURLOPT_SSL_CTX_FUNCTION, &Transfer::tlsCallback);
    set(CURLOPT_SSL_CTX_DATA, this);
    set(CURLOPT_HEADERFUNCTION, &Transfer::headerCallback);
    set(CURLOPT_HEADERDATA, this);
    set(CURLOPT_WRITEFUNCTION, &Transfer::bodyCallback);
    set(CURLOPT_WRITEDATA, this);
    set(CURLOPT_NOPROGRESS, 0L);
    set(CURLOPT_XFERINFOFUNCTION, &Transfer::progressCallback);
    set(CURLOPT_XFERINFODATA, this);
    if (credentials_) {
        set(CURLOPT_HTTPAUTH, schemes_);
        set(CURLOPT_USERNAME, credentials_->user.c_str());
        set(CURLOPT_PASSWORD, credentials_->password.c_str());
    }
    if (headers != nullptr) {
        const std::string range = std::to_string(context_.file.size()) + "-";
        set(CURLOPT_HTTPHEADER, headers);
        set(CURLOPT_RANGE, range.c_str());
    }
    return result;
}

int Transfer::run(const std::string& url) {
    if (handle_ == nullptr) return CURLE_OUT_OF_MEMORY;
    if (state_.isOverdue()) return CURLE_ABORTED_BY_CALLBACK;
    curl_easy_reset(handle_);
    CurlList headers;
    if (resumeFrom_) {
        headers.reset(curl_slist_append(nullptr, ("If-Range: " + resumeFrom_->version.strongValidator()).c_str()));
        if (headers == nullptr) return CURLE_OUT_OF_MEMORY;
    }
    CURLcode result = setOptions(url, headers.get());
    if (result == CURLE_OK) result = perform(url);
    // Both remove our options from the handle, credentials in particular.
    if (result == CURLE_OK && isFullyRead()) {
        state_.keepHandle(tls_);
    } else {
        state_.dropHandle();
    }
    state_.httpCode = storedRest() ? httpOk : status_;
    if (failure_) std::rethrow_exception(failure_);
    return ended_.value_or(result);
}

// Whether the connection can be reused. A server may send a body with a response that has none, such as a 204; it would
// be read as the next response.
bool Transfer::isFullyRead() const {
    return !ended_ && !failure_ && (storing_ || !redirection_.empty() || status_ == httpUnauthorized);
}

// Returns the result of libcurl; `ended_` overrides it.
CURLcode Transfer::perform(const std::string& url) {
    offset_ = context_.file.size();
    resumePoint_.url = url;
    const CURLcode result = curl_easy_perform(handle_);
    curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &status_);
    long offered = 0;
    curl_easy_getinfo(handle_, CURLINFO_HTTPAUTH_AVAIL, &offered);
    offeredSchemes_ = static_cast<unsigned long>(offered);
    try {
        finish(result, url);
    } catch (...) {
        failure_ = std::current_exception();
    }
    return result;
}

void Transfer::finish(CURLcode result, const std::string& url) {
    if (failure_) return;
    if (!headersComplete_) {
        // libcurl accepts a response that ends inside the headers.
        if (result == CURLE_OK && !ended_) ended_ = CURLE_RECV_ERROR;
        if (result == CURLE_OUT_OF_MEMORY && status_ != 0) {  // also for a line of over 100 KiB
            dbg::Debug::warning() << "A header of the answer is too long, or memory ran out; download failed"
                                  << std::endl;
        }
        return;
    }
    if (isRedirect(status_)) redirection_ = resolve(url, header("Location"));
    // The body is empty or was not received.
    if (!bodyBegun_ && (result == CURLE_OK || status_ == httpOk)) beginBody();
    if (result != CURLE_OK || ended_ || !storing_) return;
    if (!isEndConfirmed(url)) {
        dbg::Debug::warning() << "The TLS connection was cut before the answer's end" << std::endl;
        ended_ = CURLE_PARTIAL_FILE;
    }
    if (ended_ || !end_) return;
    if (context_.file.size() != *end_) return endAsMismatch();
    // A server may send only part of the requested range.
    if (*end_ != resumePoint_.total) ended_ = CURLE_PARTIAL_FILE;
}

// Over TLS an attacker can cut the connection, but cannot forge a close_notify.
bool Transfer::isEndConfirmed(const std::string& url) const {
    if (strncasecmp(url.c_str(), "https:", 6) != 0) return true;
    return contentLength() >= 0 || chunked_ || state_.closeNotify.wasReceivedOn(tls_);
}

// -1 if unknown.
curl_off_t Transfer::contentLength() const {
    curl_off_t length = -1;
    curl_easy_getinfo(handle_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    return length;
}

std::string Transfer::header(const char* name) const {
    curl_header* found = nullptr;
    return curl_easy_header(handle_, name, 0, CURLH_HEADER, -1, &found) == CURLHE_OK ? trimmed(found->value) : "";
}

// All headers of this name, separated by commas.
std::string Transfer::joinedHeaders(const char* name) const {
    std::string values;
    curl_header* found = nullptr;
    for (std::size_t at = 0; curl_easy_header(handle_, name, at, CURLH_HEADER, -1, &found) == CURLHE_OK; ++at) {
        const std::string value = trimmed(found->value);
        if (!values.empty() && !value.empty()) values += ",";
        values += value;
    }
    return values;
}

FileVersion Transfer::fileVersion() const {
    return {joinedHeaders("ETag"), joinedHeaders("Last-Modified"), joinedHeaders("Date")};
}

void Transfer::beginBody() {
    bodyBegun_ = true;
    curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &status_);
    const bool isRest = resumeFrom_ && status_ == httpPartialContent;
    if (resumeFrom_ && status_ == httpRangeNotSatisfiable) return endAsMismatch();
    if (isRest && !beginRest()) return endAsMismatch();
    storing_ = status_ == httpOk || isRest;
    if (!storing_) return;
    if (status_ == httpOk) beginWholeFile();
    checkCodings();
    if (ended_) return;
    checkSize(offset_ + static_cast<std::uint64_t>(std::max<curl_off_t>(contentLength(), 0)));
}

void Transfer::checkCodings() {
    const auto refuse = [this](const char* logText, const std::string& codings) {
        dbg::Debug::warning() << logText << shortened(codings) << "', which was not requested; download failed"
                              << std::endl;
        ended_ = CURLE_BAD_CONTENT_ENCODING;
    };
    const std::string content = joinedHeaders("Content-Encoding");
    const std::string transfer = joinedHeaders("Transfer-Encoding");
    if (!isAcceptedCoding(content, context_.fileName)) {
        refuse("The answer has the content coding '", content);
    } else if (!transfer.empty() && !(chunked_ && isChunked(transfer))) {
        // libcurl would decode some of them without noticing a truncated body.
        refuse("The answer has the transfer coding '", transfer);
    }
}

void Transfer::beginWholeFile() {
    if (context_.file.size() != 0) context_.file.restart();
    offset_ = 0;
    resumePoint_.version = fileVersion();
    if (contentLength() >= 0) resumePoint_.total = static_cast<std::uint64_t>(contentLength());
}

// Returns false if the 206 does not have exactly the bytes after those in the file.
bool Transfer::beginRest() {
    const auto range = parseContentRange(joinedHeaders("Content-Range"));
    if (!range || range->first != offset_ || !resumeFrom_->version.isSameAs(fileVersion())) return false;
    if (resumeFrom_->total && *resumeFrom_->total != range->total) return false;
    const curl_off_t length = contentLength();
    if (length >= 0 && static_cast<std::uint64_t>(length) != range->last + 1 - range->first) return false;
    resumePoint_.version = resumeFrom_->version;
    resumePoint_.total = range->total;
    end_ = range->last + 1;
    return true;
}

void Transfer::endAsMismatch() {
    mismatch_ = true;
    ended_ = CURLE_RANGE_ERROR;
}

// Ends the transfer if a file of `size` bytes exceeds the limit.
void Transfer::checkSize(std::uint64_t size) {
    if (size > recheckAt_) {
        sizeLimit_ = context_.limit();
        recheckAt_ = context_.file.size() + limitCheckInterval;
    }
    if (size > sizeLimit_) ended_ = CURLE_FILESIZE_EXCEEDED;
}

void Transfer::beginResponse() {
    headersComplete_ = false;
    chunked_ = false;
    delivered_ = 0;
    // Only available while libcurl transfers.
    curl_tlssessioninfo* session = nullptr;
    curl_easy_getinfo(handle_, CURLINFO_TLS_SSL_PTR, &session);
    tls_ =
        session == nullptr || session->backend == CURLSSLBACKEND_NONE ? nullptr : static_cast<SSL*>(session->internals);
}

std::size_t Transfer::onHeader(const char* data, std::size_t length) {
    const std::string line(data, length);
    if (line.compare(0, 5, "HTTP/") == 0) beginResponse();
    if (line == "\r\n" || line == "\n") headersComplete_ = true;
    if (!headersComplete_ && isChunkedHeader(line)) chunked_ = true;
    headerBytes_ += length;
    if (headerBytes_ <= maxHeaderBytes) return length;
    if (!ended_) {
        dbg::Debug::warning() << "The answer's headers are larger than 256 KiB, download failed" << std::endl;
        ended_ = CURLE_WEIRD_SERVER_REPLY;
    }
    return 0;
}

std::size_t Transfer::onBody(const char* data, std::size_t length) {
    delivered_ += length;
    if (!bodyBegun_) beginBody();
    if (ended_) return 0;
    if (!storing_) {
        discarded_ += length;
        // The status is the result; the body may be endless.
        if (discarded_ > maxDiscardedBytes) ended_ = CURLE_OK;
        return ended_ ? 0 : length;
    }
    if (end_ && context_.file.size() + length > *end_) endAsMismatch();
    if (!ended_) checkSize(context_.file.size() + length);
    if (ended_) return 0;
    context_.file.append(data, length);
    received_ += length;
    return length;
}

int Transfer::onProgress(curl_off_t total, curl_off_t now) {
    const auto offset = static_cast<curl_off_t>(offset_);
    if (!ended_ && !context_.keepsPace(state_.settings.steadyNow(), received_)) ended_ = CURLE_OPERATION_TIMEDOUT;
    // libcurl reads the body of a 401 itself, without onBody, if it repeats the request with credentials.
    const std::uint64_t read = static_cast<std::uint64_t>(std::max<curl_off_t>(now, 0));
    if (!ended_ && read > delivered_ + maxDiscardedBytes) ended_ = CURLE_OK;
    if (!ended_ && state_.isOverdue()) ended_ = CURLE_ABORTED_BY_CALLBACK;
    state_.report(total > 0 ? wrappedCount<long>(offset + total) : 0, wrappedCount<long>(offset + now));
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

int Transfer::progressCallback(void* self, curl_off_t total, curl_off_t now, curl_off_t /*uploadTotal*/,
                               curl_off_t /*uploaded*/) {
    return static_cast<Transfer*>(self)->onProgress(total, now);
}

CURLcode Transfer::tlsCallback(CURL* /*handle*/, void* context, void* self) {
    auto* const tls = static_cast<SSL_CTX*>(context);
    const auto& transfer = *static_cast<Transfer*>(self);
    try {
        SSL_CTX_set1_cert_store(tls, transfer.trusted_->store());
        transfer.state_.closeNotify.watch(tls);
        return transfer.identity_ == nullptr || transfer.identity_->useIn(tls) ? CURLE_OK : CURLE_OUT_OF_MEMORY;
    } catch (...) {
        return CURLE_OUT_OF_MEMORY;
    }
}

}  // namespace zav

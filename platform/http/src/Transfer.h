// One GET request whose body is stored in a partial file. Used once, by one thread.
#pragma once

#include <curl/curl.h>
#include <openssl/ssl.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "Credentials.h"
#include "CurlState.h"
#include "FileVersion.h"
#include "PartialFile.h"
#include "http/CurlTypes.h"
#include "security/Security.h"

namespace zav {

/// The HTTP status codes, besides httpOk and redirects, that downloads distinguish.
constexpr long httpPartialContent = 206;
constexpr long httpUnauthorized = 401;
constexpr long httpRangeNotSatisfiable = 416;

/// Whether a download that has received `bytes` after `elapsed` may continue. The stall timeout does not end a transfer
/// of a byte now and then, so all attempts of a download together must receive 1 KiB per second, not counting the first
/// five minutes. Any line that a phone is used on is faster.
bool keepsPace(std::chrono::steady_clock::duration elapsed, std::uint64_t bytes);

/// `bytes` for a progress callback, whose `long` has 32 bits on some phones: counted from 0 again past the maximum of
/// `Integer`. A callback takes an unchanged count for a stalled transfer, so the count must not stay at the maximum.
template <typename Integer>
Integer wrappedCount(std::int64_t bytes) {
    constexpr auto maximum = static_cast<std::uint64_t>(std::numeric_limits<Integer>::max());
    return static_cast<Integer>(static_cast<std::uint64_t>(bytes) & maximum);
}

/// Returns the size limit of the file in bytes. Called repeatedly, because the free space may change.
using SizeLimit = std::function<std::uint64_t()>;

/// What all transfers of a download share.
struct TransferContext {
    PartialFile& file;
    SizeLimit limit;
    std::string fileName;                             // as requested; decides which content codings are accepted
    bool large = false;                               // use a large buffer
    std::chrono::steady_clock::time_point startedAt;  // of the download
    std::uint64_t received = 0;                       // bytes that earlier transfers stored

    bool keepsPace(std::chrono::steady_clock::time_point now, std::uint64_t moreReceived) const {
        return zav::keepsPace(now - startedAt, received + moreReceived);
    }
};

class Transfer {
 public:
    /// `client` and `context` must outlive this object. `identity` is what the phone presents if the server asks for a
    /// certificate; null for none.
    Transfer(Curl::State& client, const Security& security, const TransferContext& context,
             std::shared_ptr<const DeviceIdentity> identity);
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    /// Sets the credentials to send if the server asks for them by one of `schemes` (a libcurl mask).
    void useCredentials(const Credentials& credentials, unsigned long schemes);
    /// Requests the bytes after the current size of the file, or the whole file if it has changed since `point`.
    void resume(const ResumePoint& point) { resumeFrom_ = point; }

    /// Runs the transfer, sets the status of the client and returns a libcurl result code. Does not follow redirects.
    /// Blocks. Throws std::system_error if the file cannot be written.
    int run(const std::string& url);

    /// 0 if there was no response.
    long status() const { return status_; }
    /// The authentication schemes that a 401 offered (a libcurl mask).
    unsigned long offeredSchemes() const { return offeredSchemes_; }
    /// The target of a redirect, as an absolute URL if it is valid. Empty for any other response.
    const std::string& redirection() const { return redirection_; }
    /// Whether the response was the whole file, or the rest of a resumed one, and its body was stored as far as it
    /// came.
    bool storedWholeFile() const { return storing_ && status_ == httpOk; }
    bool storedRest() const { return storing_ && status_ == httpPartialContent; }
    /// Whether the response to `resume` did not continue the file. The content of the file is then useless.
    bool isMismatch() const { return mismatch_; }
    /// Describes the bytes in the file. Valid after storedWholeFile or storedRest.
    const ResumePoint& resumePoint() const { return resumePoint_; }
    /// Bytes that this transfer stored.
    std::uint64_t received() const { return received_; }

 private:
    CURLcode setOptions(const std::string& url, const curl_slist* headers);
    CURLcode perform(const std::string& url);
    void finish(CURLcode result, const std::string& url);
    bool isFullyRead() const;
    void beginResponse();
    void beginBody();
    void checkCodings();
    void beginWholeFile();
    bool beginRest();
    void endAsMismatch();
    void checkSize(std::uint64_t size);
    std::size_t onHeader(const char* data, std::size_t length);
    std::size_t onBody(const char* data, std::size_t length);
    int onProgress(curl_off_t total, curl_off_t now);
    bool isEndConfirmed(const std::string& url) const;
    curl_off_t contentLength() const;
    std::string header(const char* name) const;
    std::string joinedHeaders(const char* name) const;
    FileVersion fileVersion() const;

    static std::size_t headerCallback(char* data, std::size_t size, std::size_t count, void* self);
    static std::size_t bodyCallback(char* data, std::size_t size, std::size_t count, void* self);
    static int progressCallback(void* self, curl_off_t total, curl_off_t now, curl_off_t uploadTotal,
                                curl_off_t uploaded);
    static CURLcode tlsCallback(CURL* handle, void* context, void* self);

    // Constant while the transfer runs.
    Curl::State& state_;
    const std::shared_ptr<const TrustedCertificates> trusted_;
    const std::shared_ptr<const DeviceIdentity> identity_;
    CURL* const handle_;
    const TransferContext& context_;
    std::optional<Credentials> credentials_;
    unsigned long schemes_ = 0;
    std::optional<ResumePoint> resumeFrom_;

    // State of the transfer.
    const SSL* tls_ = nullptr;  // of the connection that the last response came on
    long status_ = 0;
    unsigned long offeredSchemes_ = 0;
    std::size_t headerBytes_ = 0;   // of all responses, 1xx and trailers included
    bool headersComplete_ = false;  // of the last response
    bool chunked_ = false;          // libcurl decodes the chunks
    bool bodyBegun_ = false;
    bool storing_ = false;  // the body is stored in the file
    bool mismatch_ = false;
    std::uint64_t offset_ = 0;          // position of the body in the file
    std::uint64_t received_ = 0;        // bytes stored
    std::uint64_t delivered_ = 0;       // bytes of the last response that libcurl passed to onBody
    std::uint64_t discarded_ = 0;       // bytes of a body that is not stored
    std::uint64_t sizeLimit_ = 0;       // result of the last call of context_.limit
    std::uint64_t recheckAt_ = 0;       // file size at which the limit is read again
    std::optional<std::uint64_t> end_;  // position of the end of a resumed body in the file
    std::optional<CURLcode> ended_;     // the result, if we ended the transfer
    std::exception_ptr failure_;        // thrown in a callback; rethrown by run
    std::string redirection_;
    ResumePoint resumePoint_;
};

}  // namespace zav

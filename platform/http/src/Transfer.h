// One GET into a partial file: the options that every transfer has, the checks while it runs, and what came of it.
// Lives for one attempt, on one thread.
#pragma once

#include <curl/curl.h>
#include <openssl/ssl.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Credentials.h"
#include "CurlState.h"
#include "FileVersion.h"
#include "PartialFile.h"
#include "http/Curl.h"
#include "security/Security.h"

namespace zav {

/// What a file may grow to, asked again while it grows.
using SizeLimit = std::function<std::uint64_t()>;

/// What all attempts of a download have in common.
struct TransferOrder {
    PartialFile& file;
    SizeLimit limit;
    std::string fileName;                         // as it was asked for: decides which content codings are welcome
    bool large = false;                           // pays for a large buffer
    std::chrono::steady_clock::time_point begun;  // when the whole download began
    std::uint64_t received = 0;                   // bytes of the file that earlier attempts brought
};

class Transfer {
 public:
    Transfer(Curl& curl, const Security& security, const TransferOrder& order);
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    /// Sent when the server asks for them, by the schemes in `schemes` (libcurl's mask) only.
    void useCredentials(const Credentials& credentials, unsigned long schemes);
    /// Asks for what follows the file's present size, or for the whole file if `point` no longer fits it.
    void resume(const ResumePoint& point) { resumed_ = point; }

    /// Runs it and returns a libcurl result code; the client has the status then. Follows no redirect. Blocks. What
    /// the file throws comes out here.
    int run(const std::string& url);

    long status() const { return status_; }  // 0: no answer
    /// The authentication schemes that the server's 401 offered (libcurl's mask).
    unsigned long offeredSchemes() const { return offeredSchemes_; }
    /// Where a 301, 302, 303, 307 or 308 leads, as a whole URL if it is one. Empty for every other answer.
    const std::string& redirection() const { return redirection_; }
    /// Whether the answer carried the whole file, or the rest of it: into the file, as far as it came.
    bool tookWhole() const { return kept_ && status_ == 200; }
    bool tookRest() const { return kept_ && status_ == 206; }
    /// Whether the answer to `resume` does not continue the file. What the file holds then is worth nothing.
    bool isMisfit() const { return misfit_; }
    /// What the file holds now; meaningful when it took something.
    const ResumePoint& reached() const { return reached_; }
    /// Bytes that this attempt added to the file.
    std::uint64_t received() const { return received_; }

    /// What the client answers for the latest transfer.
    static void publishStatus(Curl& curl, long status) { curl.state_->httpCode = status; }

 private:
    CURLcode setOptions(const std::string& url, const curl_slist* headers);
    CURLcode perform(const std::string& url);
    void conclude(CURLcode result, const std::string& url);
    bool isUsedUp() const;
    void beginAnswer();
    void beginBody();
    void checkCodings();
    void beginWhole(curl_off_t announced);
    bool continuesFile(curl_off_t announced);
    void endAsMisfit();
    void checkSize(std::uint64_t size);
    std::size_t onHeader(const char* data, std::size_t length);
    std::size_t onBody(const char* data, std::size_t length);
    int onProgress(curl_off_t total, curl_off_t now);
    bool isEndConfirmed(const std::string& url) const;
    std::string header(const char* name) const;
    std::string headers(const char* name) const;
    FileVersion fileVersion() const;

    static std::size_t headerCallback(char* data, std::size_t size, std::size_t count, void* self);
    static std::size_t bodyCallback(char* data, std::size_t size, std::size_t count, void* self);
    static int progressCallback(void* self, curl_off_t total, curl_off_t now, curl_off_t upTotal, curl_off_t upNow);
    static CURLcode tlsCallback(CURL* handle, void* context, void* self);

    // Constant while it runs.
    Curl::State& state_;
    const std::shared_ptr<const TrustedCertificates> trusted_;
    CURL* const handle_;
    const TransferOrder& order_;
    std::optional<Credentials> credentials_;
    unsigned long schemes_ = 0;
    std::optional<ResumePoint> resumed_;

    // What happens meanwhile.
    const SSL* tls_ = nullptr;  // of the connection that the latest answer came on
    long status_ = 0;
    unsigned long offeredSchemes_ = 0;
    std::size_t headerBytes_ = 0;   // of all answers, trailers included
    bool headersComplete_ = false;  // of the latest answer
    bool chunked_ = false;          // and libcurl takes the chunks apart
    bool bodyBegun_ = false;
    bool kept_ = false;  // the body belongs into the file
    bool misfit_ = false;
    std::uint64_t offset_ = 0;          // where in the file this body begins
    std::uint64_t received_ = 0;        // bytes written to the file
    std::uint64_t handedOver_ = 0;      // bytes of the latest answer's body that libcurl handed to us
    std::uint64_t discarded_ = 0;       // bytes of a body that is not kept
    std::uint64_t allowed_ = 0;         // what the limit said last
    std::uint64_t recheckAt_ = 0;       // the size from which it is asked again
    std::optional<std::uint64_t> end_;  // where in the file a resumed body ends
    std::optional<CURLcode> ended_;     // why we ended it ourselves
    std::exception_ptr failure_;        // what the file threw, carried past libcurl
    std::string redirection_;
    ResumePoint reached_;
};

}  // namespace zav

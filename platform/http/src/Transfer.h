// One GET into a partial file: the options that every transfer has, the checks while it runs, and what came of it.
// Lives for one attempt, on one thread.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Credentials.h"
#include "CurlState.h"
#include "PartialFile.h"
#include "http/Curl.h"
#include "security/Security.h"

namespace zav {

/// What a file may grow to, asked again while it grows.
using SizeLimit = std::function<std::uint64_t()>;

class Transfer {
 public:
    /// `begun` is when the whole download began, of which this is one attempt.
    Transfer(Curl& curl, const Security& security, PartialFile& file, const SizeLimit& limit,
             std::chrono::steady_clock::time_point begun);
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    /// Pays for firmware only.
    void useLargeBuffer() { bufferSize_ = 512L * 1024; }
    /// Sent when the server asks for them, by the schemes in `schemes` (libcurl's mask) only.
    void useCredentials(const Credentials& credentials, unsigned long schemes);
    /// Asks for the rest behind the file's present size, or for the whole file should `validator` not fit it any more.
    void resume(const std::string& validator) { resumed_ = validator; }

    /// Runs it and returns a libcurl result code; the client has the status then. Follows no redirect. Blocks. What
    /// the file throws comes out here.
    int run(const std::string& url);

    long status() const { return status_; }  // 0: no answer
    /// The authentication schemes that the server's 401 offered (libcurl's mask).
    unsigned long offeredSchemes() const { return offeredSchemes_; }
    /// Where a 301, 302, 303, 307 or 308 leads, as a whole URL if it is one. Empty for every other answer.
    const std::string& redirection() const { return redirection_; }
    /// What `resume` needs: the file's strong ETag or its date. Empty when the server named neither.
    const std::string& validator() const { return validator_; }

    /// What the client answers for the latest transfer.
    static void publishStatus(Curl& curl, long status) { curl.state_->httpCode = status; }

 private:
    CURLcode setOptions(const std::string& url);
    CURLcode perform(const std::string& url);
    std::size_t onBody(const char* data, std::size_t length);
    int onProgress(curl_off_t total, curl_off_t now);
    void beginBody();
    void checkSize(std::uint64_t size);
    std::string header(const char* name) const;

    static std::size_t bodyCallback(char* data, std::size_t size, std::size_t count, void* self);
    static int progressCallback(void* self, curl_off_t total, curl_off_t now, curl_off_t upTotal, curl_off_t upNow);
    static CURLcode tlsCallback(CURL* handle, void* context, void* self);

    // Constant while it runs.
    Curl::State& state_;
    const std::shared_ptr<const TrustedCertificates> trusted_;
    CURL* const handle_;
    PartialFile& file_;
    const SizeLimit& limit_;
    const std::chrono::steady_clock::time_point begun_;
    long bufferSize_ = 16L * 1024;
    std::optional<Credentials> credentials_;
    unsigned long schemes_ = 0;
    std::string resumed_;

    // What happens meanwhile.
    long status_ = 0;
    unsigned long offeredSchemes_ = 0;
    bool bodyBegun_ = false;
    bool kept_ = false;                   // the body belongs into the file
    std::uint64_t offset_ = 0;            // where in the file this body begins
    std::uint64_t discarded_ = 0;         // bytes of a body that is not kept
    std::uint64_t allowed_ = 0;           // what the limit said last
    std::uint64_t askedUpTo_ = 0;         // the size from which it is asked again
    std::optional<std::uint64_t> total_;  // of a resumed file, when the server says
    std::optional<CURLcode> ended_;       // why we ended it ourselves
    std::exception_ptr failure_;          // what the file threw, carried past libcurl
    std::string redirection_;
    std::string validator_;
};

}  // namespace zav

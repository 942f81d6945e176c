// One call of FileDownloader::downloadFile: retries interrupted attempts, follows redirects and finds credentials. Not
// thread-safe.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Credentials.h"
#include "PartialFile.h"
#include "Transfer.h"
#include "http/Curl.h"
#include "http/UrlInfo.h"
#include "propertyapi/IPropertyApi.h"
#include "security/Security.h"

namespace zav {

/// Whether the text begins like an http or https URL.
bool isHttpUrl(const std::string& url);

class Download {
 public:
    /// All arguments must outlive this object. Throws std::system_error if the destination cannot be written.
    Download(Curl& curl, const Security& security, const std::shared_ptr<propertyapi::IPropertyApi>& properties,
             const UrlInfo& source, const std::string& destination);
    Download(const Download&) = delete;
    Download& operator=(const Download&) = delete;

    /// Runs the download and returns a libcurl result code. An interrupted firmware transfer is retried: it is resumed
    /// if the server sent a strong validator, else started again. Throws std::system_error if the file cannot be
    /// written, and UrlException for a redirect to an invalid URL.
    int run();

 private:
    // The current request of an attempt.
    struct Hop {
        explicit Hop(const UrlInfo& first) : url(first) {}

        UrlInfo url;
        unsigned redirects = 0;
        bool moved = false;  // a redirect has left the server or the protocol of the first hop
        std::optional<Credentials> credentials;
        unsigned long schemes = 0;
    };

    int attempt();
    bool mayRetry(int result) const;
    bool waitForRetry(std::chrono::seconds pause);
    bool keepsPace() const;
    std::shared_ptr<const DeviceIdentity> identityFor(const UrlInfo& url) const;
    void follow(Hop& hop, const UrlInfo& next) const;
    bool addCredentials(Hop& hop, unsigned long offered) const;
    void logUnsetClock(int result) const;
    void record(const Transfer& transfer);

    // Constant after construction.
    Curl& curl_;
    const Curl::State& client_;
    const Security& security_;
    const std::shared_ptr<propertyapi::IPropertyApi>& properties_;
    const UrlInfo& source_;
    const bool firmware_;

    PartialFile file_;
    TransferContext context_;
    long status_ = 0;
    bool started_ = false;     // there was a response with the file
    bool mismatch_ = false;    // the last response did not continue the file
    ResumePoint resumePoint_;  // of the bytes in the file
};

}  // namespace zav

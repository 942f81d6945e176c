// Downloads files over http and https.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "http/Curl.h"
#include "propertyapi/IPropertyApi.h"
#include "security/Security.h"

namespace zav {

/// The limit of files that are stored there, in bytes; none for firmware, which is limited by the free space.
std::optional<std::uint64_t> sizeLimitOf(const std::string& destination);

class FileDownloader {
 public:
    FileDownloader(std::shared_ptr<Curl> curl, Security& security,
                   std::shared_ptr<propertyapi::IPropertyApi> properties);

    /// Downloads `url`, with its device placeholders expanded, to `destination`. Returns a libcurl result code: 0 if
    /// the transfer succeeded, and then `Curl::getHttpCode` is the HTTP status. Only a transfer that succeeds with
    /// status 200 replaces the destination, in one step and synced; otherwise it is unchanged and no partial file
    /// remains.
    ///
    /// Follows up to 5 redirects, http and https only. TLS certificates are always verified. Timeouts: 30 s to connect,
    /// 120 s without data. Size limits: 16 MiB for provisioning files, 1 MiB for certificates, 64 MiB for phone books,
    /// the free space less a reserve for firmware. Factory credentials are sent to the configured server only.
    ///
    /// Blocks for the whole download. Errors are result codes: an invalid URL is CURLE_URL_MALFORMAT, a destination
    /// that cannot be written CURLE_WRITE_ERROR with a log line.
    int downloadFile(const std::string& url, const std::string& destination);

 private:
    std::shared_ptr<Curl> curl_;
    Security& security_;
    std::shared_ptr<propertyapi::IPropertyApi> properties_;
};

}  // namespace zav

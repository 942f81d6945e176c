// One file from a server to its place on the phone, whole or not at all.
#pragma once

#include <memory>
#include <string>

#include "http/Curl.h"
#include "propertyapi/IPropertyApi.h"
#include "security/Security.h"

namespace zav {

class FileDownloader {
 public:
    FileDownloader(std::shared_ptr<Curl> curl, Security& security,
                   std::shared_ptr<propertyapi::IPropertyApi> properties);

    /// Downloads `url` (device placeholders expanded) to `destination` and returns a libcurl result code, 0 when the
    /// transfer worked; `Curl::getHttpCode` then tells the HTTP status. Only for status 200 is the destination
    /// replaced, in one step and synced; otherwise the old file stands and no partial one is left.
    /// http and https only, at most 5 redirects; TLS is verified, always. Connect 30 s, stalled 120 s; at most 16 MiB
    /// for provisioning files, 1 MiB for certificates, 64 MiB for phone books, the free space less a reserve for
    /// firmware. Factory credentials go to the configured server's host and port only. Blocks. Throws nothing of its
    /// own: a place that cannot be written is CURLE_WRITE_ERROR with a log line.
    int downloadFile(const std::string& url, const std::string& destination);

 private:
    std::shared_ptr<Curl> curl_;
    Security& security_;
    std::shared_ptr<propertyapi::IPropertyApi> properties_;
};

}  // namespace zav

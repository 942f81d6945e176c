// The configured credentials, and where they may be sent.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "http/UrlInfo.h"
#include "propertyapi/IPropertyApi.h"

namespace zav {

struct Credentials {
    std::string user;
    std::string password;
};

/// Whether both URLs have the same host and port; a missing port is the default of the scheme.
bool isSameServer(const UrlInfo& a, const UrlInfo& b);

/// The configured provisioning server, to which the device certificate is presented. Returns nothing if none is
/// configured, and after logging it, if the property cannot be read or is not a URL. Blocks on property reads.
std::optional<UrlInfo> configuredServer(const std::shared_ptr<propertyapi::IPropertyApi>& properties);

/// The configured credentials and the server they are for.
struct ConfiguredCredentials {
    UrlInfo server;
    Credentials credentials;
};

/// Reads the credentials from the URL of the configured provisioning server, or if it has none, the factory ones.
/// Returns nothing if no server or no user is configured, and after logging it, if the server is not a URL or a
/// property cannot be read. Blocks on property reads.
std::optional<ConfiguredCredentials> configuredCredentials(
    const std::shared_ptr<propertyapi::IPropertyApi>& properties);

/// The authentication schemes (a libcurl mask) that are allowed for `url`: Basic only with TLS, because it sends the
/// password in plain text.
unsigned long safeSchemes(const UrlInfo& url);

/// The reason why `configured` must not be sent to `url`, whose server offers the schemes in `offered`, as text for the
/// log; empty if there is none. `moved`: a redirect has left the server or the protocol where the download began.
std::string whyHeldBack(const ConfiguredCredentials& configured, const UrlInfo& url, unsigned long offered, bool moved);

}  // namespace zav

// Name and password for a server that asks for them.
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

/// Whether both are on the same host and port, the schemes' own ports included.
bool isSameServer(const UrlInfo& a, const UrlInfo& b);

/// The credentials that are configured, and the server they are for.
struct ConfiguredCredentials {
    UrlInfo server;
    Credentials credentials;
};

/// Those in the configured provisioning server's URL, or else the factory ones. Nothing when no server or no user is
/// configured, when the server is not a URL, or when the properties cannot be read (the last two are logged). Blocks
/// for up to three properties; throws nothing of its own.
std::optional<ConfiguredCredentials> configuredCredentials(
    const std::shared_ptr<propertyapi::IPropertyApi>& properties);

/// The authentication schemes (libcurl's mask) that may be used with `url`. Basic tells the password to everybody on
/// the way, so it needs TLS.
unsigned long safeSchemes(const UrlInfo& url);

/// Why `configured` must not be sent to `url`, which asks for one of the schemes in `offered`; empty if it may.
/// `moved`: a redirect has left the server or the protocol where the download began.
std::string whyHeldBack(const ConfiguredCredentials& configured, const UrlInfo& url, unsigned long offered, bool moved);

}  // namespace zav

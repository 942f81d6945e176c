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

/// The credentials to be used for `url`: those in the configured provisioning server's URL, or else the factory ones.
/// Nothing when `url` is not on that server (host and port), would carry them with less protection than the configured
/// URL does, when none are set, or when the properties cannot be read (which is logged). Blocks for up to three
/// properties; throws nothing of its own.
std::optional<Credentials> credentialsFor(const UrlInfo& url,
                                          const std::shared_ptr<propertyapi::IPropertyApi>& properties);

}  // namespace zav

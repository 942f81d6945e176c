#include "Credentials.h"

#include <strings.h>

#include "CurlPointers.h"
#include "debug/Debug.h"
#include "http/FormatUrl.h"

namespace zav {

namespace {

constexpr const char* serverKey = "System.Provision.ProvisioningServer";

unsigned effectivePort(const UrlInfo& url) {
    if (url.port() != 0) return url.port();
    return url.scheme() == "https" ? 443 : 80;
}

std::string decoded(const std::string& text) {
    int length = 0;
    const CurlText plain(curl_easy_unescape(nullptr, text.c_str(), static_cast<int>(text.size()), &length));
    return plain == nullptr ? text : std::string(plain.get(), static_cast<std::size_t>(length));
}

}  // namespace

bool isSameServer(const UrlInfo& a, const UrlInfo& b) {
    return strcasecmp(a.host().c_str(), b.host().c_str()) == 0 && effectivePort(a) == effectivePort(b);
}

std::optional<UrlInfo> configuredServer(const std::shared_ptr<propertyapi::IPropertyApi>& properties) {
    try {
        const std::string server = properties->get(serverKey);
        if (!server.empty()) return UrlInfo(formatUrl(server, properties));
    } catch (const UrlException&) {
        dbg::Debug::warning() << "Device certificate not used: " << serverKey << " is not a URL" << std::endl;
    } catch (const propertyapi::PropertyException& exception) {
        dbg::Debug::warning() << "Device certificate not used: " << exception.what() << std::endl;
    }
    return std::nullopt;
}

std::optional<ConfiguredCredentials> configuredCredentials(
    const std::shared_ptr<propertyapi::IPropertyApi>& properties) {
    try {
        const std::string server = properties->get(serverKey);
        if (server.empty()) return std::nullopt;
        ConfiguredCredentials configured{UrlInfo(formatUrl(server, properties)), {}};
        Credentials& credentials = configured.credentials;
        if (const std::string& userInfo = configured.server.userInfo(); !userInfo.empty()) {
            const auto colon = userInfo.find(':');
            credentials.user = decoded(userInfo.substr(0, colon));
            if (colon != std::string::npos) credentials.password = decoded(userInfo.substr(colon + 1));
        } else {
            credentials.user = properties->get("System.Provision.FactoryAuthUsername");
            credentials.password = properties->get("System.Provision.FactoryAuthPassword");
        }
        if (credentials.user.empty()) return std::nullopt;
        return configured;
    } catch (const UrlException&) {
        dbg::Debug::warning() << "Credentials not sent: " << serverKey << " is not a URL" << std::endl;
        return std::nullopt;
    } catch (const propertyapi::PropertyException& exception) {
        dbg::Debug::warning() << "Credentials cannot be read: " << exception.what() << std::endl;
        return std::nullopt;
    }
}

unsigned long safeSchemes(const UrlInfo& url) {
    return CURLAUTH_DIGEST | CURLAUTH_NTLM | (url.scheme() == "https" ? CURLAUTH_BASIC : 0UL);
}

std::string whyHeldBack(const ConfiguredCredentials& configured, const UrlInfo& url, unsigned long offered,
                        bool moved) {
    if (!isSameServer(url, configured.server)) return "it is not the configured provisioning server";
    if (configured.server.scheme() == "https" && url.scheme() != "https") {
        return "https is configured, but it was asked over http";
    }
    if (moved) return "a redirect has left the server or the protocol where the download began";
    if ((offered & safeSchemes(url)) != 0) return "";
    if ((offered & CURLAUTH_BASIC) != 0) return "Basic over plain http would give them away";
    return "it offers neither Digest nor NTLM, nor Basic over TLS";
}

}  // namespace zav

#include "Credentials.h"

#include <curl/curl.h>
#include <strings.h>

#include "debug/Debug.h"
#include "http/FormatUrl.h"

namespace zav {

namespace {

unsigned effectivePort(const UrlInfo& url) {
    if (url.port() != 0) return url.port();
    return url.scheme() == "https" ? 443 : 80;
}

std::string decoded(const std::string& text) {
    int length = 0;
    const std::unique_ptr<char, decltype(&curl_free)> plain(
        curl_easy_unescape(nullptr, text.c_str(), static_cast<int>(text.size()), &length), &curl_free);
    return plain == nullptr ? text : std::string(plain.get(), static_cast<std::size_t>(length));
}

}  // namespace

bool isSameServer(const UrlInfo& a, const UrlInfo& b) {
    return strcasecmp(a.host().c_str(), b.host().c_str()) == 0 && effectivePort(a) == effectivePort(b);
}

std::optional<Credentials> credentialsFor(const UrlInfo& url,
                                          const std::shared_ptr<propertyapi::IPropertyApi>& properties) {
    try {
        const std::string server = properties->get("System.Provision.ProvisioningServer");
        if (server.empty()) return std::nullopt;
        const UrlInfo configured(formatUrl(server, properties));
        if (!isSameServer(url, configured)) return std::nullopt;
        if (configured.scheme() == "https" && url.scheme() != "https") return std::nullopt;

        Credentials credentials;
        if (const std::string& own = configured.userInfo(); !own.empty()) {
            const auto colon = own.find(':');
            credentials.user = decoded(own.substr(0, colon));
            if (colon != std::string::npos) credentials.password = decoded(own.substr(colon + 1));
        } else {
            credentials.user = properties->get("System.Provision.FactoryAuthUsername");
            credentials.password = properties->get("System.Provision.FactoryAuthPassword");
        }
        if (credentials.user.empty()) return std::nullopt;
        return credentials;
    } catch (const UrlException&) {
        return std::nullopt;  // a configured server that is no URL is nobody's server
    } catch (const propertyapi::PropertyException& exception) {
        dbg::Debug::warning() << "Credentials cannot be read: " << exception.what() << std::endl;
        return std::nullopt;
    }
}

}  // namespace zav

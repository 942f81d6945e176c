#include "Core/Utils.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <chrono>
#include <memory>

#include "common/Descriptor.h"
#include "common/Execute.h"
#include "common/Filesystem.h"
#include "common/PathRoot.h"
#include "debug/Debug.h"

namespace zav {

namespace {

constexpr const char* interfaceNamePattern = "eth";
constexpr const char* localServerAddress = "127.0.0.1";
constexpr timeval connectTimeout{5, 0};  // a server that does not accept must not delay shutdown
constexpr const char* defaultFileName = "provisioning.xml";
constexpr unsigned shortestPeriod = 600;
constexpr unsigned longestPeriod = 86400;
constexpr const char* firmwareCleanUpCommand = "/config/bin/clean-up-utils.sh firmware-update";
constexpr std::chrono::milliseconds firmwareCleanUpTimeout{10000};

std::string lastReportedError;

}  // namespace

void reportErrorOnce(std::string& lastError, const std::string& message, int line) {
    if (message == lastError) return;
    dbg::Debug::error(__builtin_FILE(), line) << message << std::endl;
    lastError = message;
}

void clearReportedError(std::string& lastError, bool ok) {
    if (ok) lastError.clear();
}

bool isNetworkInterfaceUp(const ifaddrs* interfaces) {
    for (const ifaddrs* entry = interfaces; entry != nullptr; entry = entry->ifa_next) {
        if (std::string(entry->ifa_name).find(interfaceNamePattern) == std::string::npos) continue;
        constexpr unsigned required = IFF_UP | IFF_RUNNING;
        return (entry->ifa_flags & required) == required;
    }
    dbg::Debug::error() << "Could not get network interfaces" << std::endl;
    return false;
}

bool isNetworkInterfaceUp() {
    ifaddrs* interfaces = nullptr;
    if (getifaddrs(&interfaces) != 0) {
        dbg::Debug::error() << "Could not get network interfaces list" << std::endl;
        return false;
    }
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> list(interfaces, freeifaddrs);
    return isNetworkInterfaceUp(list.get());
}

bool canConnect(const addrinfo* addresses, const std::string& host) {
    for (const addrinfo* address = addresses; address != nullptr; address = address->ai_next) {
        const common::Descriptor socket(
            ::socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC, address->ai_protocol));
        if (socket.get() < 0) continue;
        setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &connectTimeout, sizeof connectTimeout);
        if (::connect(socket.get(), address->ai_addr, address->ai_addrlen) == 0) {
            dbg::Debug::info() << "Successfully connected to " << host << std::endl;
            return true;
        }
    }
    reportErrorOnce(lastReportedError, "Connection to " + host + " can not be performed", __LINE__);
    return false;
}

bool isServerReachable() {
    if (!isNetworkInterfaceUp()) {
        reportErrorOnce(lastReportedError, "Network interface is not ready yet", __LINE__);
        return false;
    }
    dbg::Debug::info() << "Network interface is ready. Checking server address..." << std::endl;

    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    const UrlInfo server(localServerAddress);
    const std::string service = serviceOf(server);
    addrinfo* addresses = nullptr;
    if (getaddrinfo(server.host().c_str(), service.c_str(), &hints, &addresses) != 0) {
        reportErrorOnce(lastReportedError,
                        "Could not get address information for [" + server.host() + "][" + service + "]", __LINE__);
        return false;
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> list(addresses, freeaddrinfo);
    const bool reachable = canConnect(list.get(), server.host());
    clearReportedError(lastReportedError, reachable);
    return reachable;
}

unsigned checkPeriod(const std::string& text) {
    const auto period = static_cast<unsigned>(std::stoi(text, nullptr, 10));
    if (period != 0 && period < shortestPeriod) {
        dbg::Debug::warning() << "Period must be at least 10 min., setting period to 10 min." << std::endl;
        return shortestPeriod;
    }
    if (period > longestPeriod) {  // includes negative numbers, which became very large ones
        dbg::Debug::warning() << "Period must be no longer than 24h, setting period to 24h" << std::endl;
        return longestPeriod;
    }
    return period;
}

UrlInfo makeUrlInfo(const std::string& url) {
    UrlInfo info(url);
    if (info.fileName().empty()) info.setFileName(defaultFileName);
    return info;
}

UrlInfo makeJobUrlInfo(const std::string& path, const std::string& baseUrl) {
    if (path.empty()) throw UrlException();
    if (path.front() == '/') return UrlInfo(serverPrefix(UrlInfo(baseUrl)) + path.substr(1));
    return UrlInfo(path);
}

std::string serverPrefix(const UrlInfo& urlInfo) { return urlInfo.origin() + urlInfo.path(); }

std::string serviceOf(const UrlInfo& urlInfo) {
    return urlInfo.port() == 0 ? urlInfo.scheme() : std::to_string(urlInfo.port());
}

std::string provisioningPath(const std::string& a, const std::string& b) { return provisioningDirectory + a + "/" + b; }

void cleanFirmwareUpdate(const common::StopSignal* stop) {
    filesystem::removeAllFromDirectory(firmwareDirectory);
    os::execute(common::rooted(firmwareCleanUpCommand), firmwareCleanUpTimeout, stop);
}

}  // namespace zav

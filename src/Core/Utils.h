// Network readiness, the provisioning period, and the URLs and local paths of provisioning files.
//
// Threads: any; the network checks from one thread at a time, because they share the last reported error.
#pragma once

#include <netdb.h>

#include <string>

#include "common/StopSignal.h"
#include "http/UrlInfo.h"

struct ifaddrs;

namespace zav {

/// Logs an error with source line `line`, unless it repeats the last one.
void reportErrorOnce(std::string& lastError, const std::string& message, int line);

/// If `ok`, clears the last reported error, so that the next failure is logged again.
void clearReportedError(std::string& lastError, bool ok);

/// Whether the first interface whose name contains "eth" is up and running.
bool isNetworkInterfaceUp(const ifaddrs* interfaces);
bool isNetworkInterfaceUp();

/// Whether one of the addresses accepts a TCP connection. `host` is for log lines. Blocks for up to 5 s per address.
bool canConnect(const addrinfo* addresses, const std::string& host);

/// Whether the wired interface is up and the phone's own web server accepts connections. Blocks for up to 5 s. Throws
/// only on lack of memory.
bool isServerReachable();

/// Provisioning period in seconds: 0 (nightly) or 600 to 86,400; clamps other numbers and logs a warning. Throws what
/// std::stoi throws if the text is not a number.
unsigned checkPeriod(const std::string& text);

/// Parses a URL and adds the file name "provisioning.xml" if it has none. Throws UrlException.
UrlInfo makeUrlInfo(const std::string& url);

/// Resolves a file reference in a provisioning file: "/…" is relative to the directory of `baseUrl`, anything else is a
/// full URL. Throws UrlException.
UrlInfo makeJobUrlInfo(const std::string& path, const std::string& baseUrl);

/// scheme://host[:port]/path/ without the file name.
std::string serverPrefix(const UrlInfo& urlInfo);

/// The service name for getaddrinfo: the port, or the scheme if the URL has no port.
std::string serviceOf(const UrlInfo& urlInfo);

/// The folder of downloaded provisioning files, ending in "/".
inline const std::string provisioningDirectory = "/var/volatile/provisioning/";

/// provisioningDirectory + a + "/" + b
std::string provisioningPath(const std::string& a, const std::string& b);

/// The firmware staging folder, ending in "/".
inline const std::string firmwareDirectory = "/config/swupdate/";

/// Empties the firmware staging folder and runs the device's clean-up script. Blocks for up to 10 s; `stop` ends the
/// script earlier, see os::execute. Throws what filesystem::removeAllFromDirectory and os::execute throw.
void cleanFirmwareUpdate(const common::StopSignal* stop = nullptr);

}  // namespace zav

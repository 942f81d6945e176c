// Network readiness, the provisioning period, and the URLs and local paths of provisioning files.
//
// Threads: the network checks are called by one thread at a time (they share the text of the last error that was
// reported); everything else by any.
#pragma once

#include <netdb.h>

#include <string>

#include "common/StopSignal.h"
#include "http/UrlInfo.h"

struct ifaddrs;

namespace zav {

/// Logs the message as an error of source line `line`, unless it is the last one reported.
void reportErrorOnce(std::string& lastError, const std::string& message, int line);

/// When `ok`, forgets the last reported error, so that the next failure is logged again.
void clearReportedError(std::string& lastError, bool ok);

/// Whether the first wired interface of the list (any name that contains "eth") is up and running.
bool isNetworkInterfaceUp(const ifaddrs* interfaces);
bool isNetworkInterfaceUp();

/// Whether one of the addresses accepts a TCP connection. `host` is for the messages. Blocks, 5 s an address at most.
bool canConnect(const addrinfo* addresses, const std::string& host);

/// Whether the wired interface is up and the phone's own web server accepts connections. Blocks.
bool isServerReachable();

/// Seconds between two provisioning passes: 0 (nightly), or 600 to 86,400, to which other numbers are moved with a
/// warning. Throws what std::stoi throws for a text that is no number.
unsigned checkPeriod(const std::string& text);

/// The URL with the file name "provisioning.xml" when it has none. Throws UrlException.
UrlInfo makeUrlInfo(const std::string& url);

/// A file named in a provisioning file: "/…" is below the server's own path, anything else a full URL.
/// Throws UrlException.
UrlInfo makeJobUrlInfo(const std::string& path, const std::string& baseUrl);

/// scheme://host[:port]/path/ without the file name.
std::string serverPrefix(const UrlInfo& urlInfo);

/// The port in decimal, or the scheme when there is none, for name resolution.
std::string serviceOf(const UrlInfo& urlInfo);

/// The folder of downloaded provisioning files, with its "/".
const std::string& provisioningDirectory();

/// provisioningDirectory() + a + "/" + b
std::string provisioningPath(const std::string& a, const std::string& b);

/// The firmware staging folder, with its "/".
const std::string& firmwareDirectory();

/// Empties the firmware staging folder and runs the device's clean-up. Blocks, 10 s at most. Throws what the folder's
/// removal and os::execute throw. `stop` ends the clean-up as it ends os::execute.
void cleanFirmwareUpdate(const common::StopSignal* stop = nullptr);

}  // namespace zav

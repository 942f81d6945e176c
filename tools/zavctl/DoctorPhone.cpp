#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "Core/Utils.h"
#include "Doctor.h"
#include "common/Descriptor.h"
#include "common/Execute.h"
#include "common/Release.h"
#include "security/CertificateFile.h"
#include "security/DeviceIdentity.h"

namespace zavctl {

namespace {

constexpr std::chrono::seconds commandTime{5};
constexpr std::chrono::hours longestUse{24 * 365 * 30};  // of one release
constexpr std::uint64_t mebibyte = 1024 * 1024;

std::string reasonOf(int error) { return std::generic_category().message(error); }

// Says nothing about the daemon, which may be another user.
Finding denied(const std::string& path) {
    return warning(path + ": permission denied for this user",
                   "Run zavctl doctor as the user that the daemon runs as, or as root.");
}

// A secret file that the daemon reads. Returns its content, or the finding if it cannot be read.
std::string readSecret(const std::string& path, const Finding& ifMissing, std::optional<Finding>& finding) {
    const common::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    std::string text(mebibyte, '\0');
    const ssize_t count = file.get() < 0 ? -1 : ::read(file.get(), text.data(), text.size());
    if (count < 0 && errno == EACCES) {
        finding = denied(path);
    } else if (count < 0) {
        finding =
            errno == ENOENT ? ifMissing : error(path + ": " + reasonOf(errno), "Replace it with a readable file.");
    }
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return text;
}

Finding checkMode(const std::string& path) {
    struct stat status {};
    const bool open = ::stat(path.c_str(), &status) == 0 && (status.st_mode & (S_IROTH | S_IWOTH)) != 0;
    return open ? warning(path + ": every user can read or replace it", "chmod 600 " + path) : ok(path);
}

Finding checkOpenssl(Examination& /*examination*/) {
    try {
        os::execute("openssl version", commandTime);
        return ok("runs");
    } catch (const os::ExecuteException& reason) {
        return error(reason.what(), "Install openssl: the daemon decrypts files with it.");
    }
}

Finding checkKey(Examination& /*examination*/) {
    const std::string path = "/etc/zav.d/key";
    std::optional<Finding> unreadable;
    const std::string text = readSecret(path,
                                        warning(path + " is missing: encrypted files cannot be decrypted",
                                                "Write the pass phrase that the server encrypts with into it."),
                                        unreadable);
    if (unreadable) return *unreadable;
    const std::string phrase = text.substr(0, text.find('\n'));
    if (phrase.empty()) return error(path + ": its first line is empty", "Write the pass phrase into the first line.");
    if (std::strchr("\r\t ", phrase.back()) != nullptr) {
        return warning(path + ": its first line ends with a " + (phrase.back() == '\r' ? "carriage return" : "blank") +
                           ", which is part of the pass phrase",
                       "Remove it, unless the server encrypts with it too.");
    }
    if (text.size() > phrase.size() + 1) {
        return warning(path + " has more than one line; the pass phrase is the first one", "Remove the other lines.");
    }
    return checkMode(path);
}

bool isWritable(const std::string& folder) {
    return ::faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
}

Finding checkFolder(const std::string& path, std::uint64_t needed) {
    if (!isWritable(path)) {
        if (errno == ENOENT) {
            return warning(path + " is missing; the daemon has to create it",
                           "Create it for its user: mkdir -p " + path);
        }
        if (errno == EACCES && ::geteuid() != 0) return denied(path);
        return error(path + " cannot be written: " + reasonOf(errno), "Make it a folder that the daemon can write.");
    }
    struct statvfs status {};
    if (::statvfs(path.c_str(), &status) != 0) return notChecked(path + ": " + reasonOf(errno));
    const std::uint64_t available = std::uint64_t{status.f_bavail} * status.f_frsize;
    const std::string text = path + ": " + std::to_string(available / mebibyte) + " MiB free";
    if (available >= needed && (status.f_files == 0 || status.f_favail > 0)) return ok(text);
    return error(text + "; " + std::to_string(needed / mebibyte) + " MiB and a free inode are needed",
                 "Remove files from that file system.");
}

// 17: the daemon leaves 16 MiB free.
Finding checkProvisioningFolder(Examination& /*examination*/) {
    return checkFolder(zav::provisioningDirectory, mebibyte);
}
Finding checkContacts(Examination& /*examination*/) { return checkFolder("/var/volatile/contacts/", mebibyte); }
Finding checkStorage(Examination& /*examination*/) { return checkFolder("/custom/certs/_storage/", mebibyte); }
Finding checkFirmware(Examination& /*examination*/) { return checkFolder(zav::firmwareDirectory, 17 * mebibyte); }

using Addresses = std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)>;

// Null if the service is unknown. Asks no name server.
Addresses localAddresses(const char* service) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (::getaddrinfo("127.0.0.1", service, &hints, &list) != 0) list = nullptr;
    return {list, ::freeaddrinfo};
}

Finding checkServices(Examination& /*examination*/) {
    if (localAddresses("http") != nullptr) return ok("has http");
    return error("has no http", "Install it (Debian: netbase): without it the daemon never enables provisioning.");
}

Finding checkWebServer(Examination& /*examination*/) {
    if (zav::canConnect(localAddresses("80").get(), "127.0.0.1")) return ok("127.0.0.1:80 accepts connections");
    return error("127.0.0.1:80 does not accept connections",
                 "Start the phone's own web server: without it the daemon never enables provisioning.");
}

Finding checkInterface(Examination& /*examination*/) {
    ifaddrs* found = nullptr;
    if (::getifaddrs(&found) != 0) return notChecked(reasonOf(errno));
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> list(found, ::freeifaddrs);
    const ifaddrs* wired = found;
    while (wired != nullptr && std::strstr(wired->ifa_name, "eth") == nullptr) wired = wired->ifa_next;
    if (wired == nullptr) {
        return error("there is none with \"eth\" in its name", "Rename the wired interface: the daemon looks for one.");
    }
    const std::string name = wired->ifa_name;
    if (zav::isNetworkInterfaceUp(found)) return ok(name + " is up");
    return error(name + " is not up and running",
                 "Look at the cable and at ip link; only the first interface with \"eth\" in its name counts.");
}

Finding checkClock(Examination& /*examination*/) {
    const auto now = std::chrono::system_clock::now();
    const std::string text = "it is " + common::dateText(now);
    if (now >= common::releaseDate && now < common::releaseDate + longestUse) return ok(text);
    return error(text + "; this software is of " + common::dateText(common::releaseDate),
                 "Set the clock: outside their dates no certificates are valid.");
}

Finding checkTrust(Examination& /*examination*/) {
    std::string path = "/custom/certs/ca-bundle.pem";
    const bool own = ::access(path.c_str(), F_OK) == 0;
    if (!own) path = "/etc/ssl/certs/ca-certificates.crt";
    const zav::CertificateFile bundle(path);
    const std::string count = path + " has " + std::to_string(bundle.certificates.size()) + " certificates";
    const std::string fix = "Write it again, with the authority of the server's certificate.";
    if (bundle.certificates.empty()) return error(count + ": no https server is trusted", fix);
    if (bundle.damaged > 0) return warning(count + ", and entries that are damaged", fix);
    if (!own) return ok(count);  // some of the system's have expired at any time
    const auto first = std::min_element(bundle.certificates.begin(), bundle.certificates.end(),
                                        [](const auto& a, const auto& b) { return a.expires < b.expires; });
    const std::string text = path + ", first to expire: " + first->subject + " on " + common::dateText(first->expires);
    return first->expires > std::chrono::system_clock::now() ? ok(text) : warning(text, fix);
}

Finding checkIdentity(Examination& /*examination*/) {
    const std::string path = "/etc/zav.d/device.pem";
    std::optional<Finding> unreadable;
    const std::string pem = readSecret(path, ok("none; only a server that asks for one needs it"), unreadable);
    if (unreadable) return *unreadable;
    try {
        const zav::DeviceIdentity identity(pem);
        return checkMode(path);
    } catch (const std::runtime_error& reason) {
        return warning(path + " " + reason.what(), "Renew it; meanwhile the daemon goes on without it.");
    }
}

}  // namespace

std::vector<Check> phoneChecks() {
    return {{"openssl", checkOpenssl},
            {"key", checkKey},
            {"folder", checkProvisioningFolder},
            {"folder", checkContacts},
            {"folder", checkStorage},
            {"folder", checkFirmware},
            {"/etc/services", checkServices},
            {"local web server", checkWebServer},
            {"wired interface", checkInterface},
            {"clock", checkClock},
            {"trusted certificates", checkTrust},
            {"device certificate", checkIdentity}};
}

}  // namespace zavctl

#include "lint/Site.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <utility>

#include "Core/Utils.h"
#include "common/Descriptor.h"
#include "common/UrlSyntax.h"
#include "http/FormatUrl.h"
#include "http/UrlInfo.h"
#include "lint/PhoneProperties.h"
#include "xml/XMLReader.h"

namespace lint {

namespace {

namespace fs = std::filesystem;

constexpr char anyServer[] = "http://server/";

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash + 1);
}

int digitOf(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// As a server decodes a path.
std::string decoded(const std::string& path) {
    std::string text;
    for (std::size_t at = 0; at < path.size(); ++at) {
        const int high = path[at] == '%' && at + 2 < path.size() ? digitOf(path[at + 1]) : -1;
        const int low = high >= 0 ? digitOf(path[at + 2]) : -1;
        if (low < 0) {
            text += path[at];
            continue;
        }
        text += static_cast<char>(high * 16 + low);
        at += 2;
    }
    return text;
}

bool isSteppingOut(const std::string& path) { return ("/" + path + "/").find("/../") != std::string::npos; }

bool hasPlaceholder(const std::string& url) {
    return url.find("%MACC") != std::string::npos || url.find("%MACD") != std::string::npos ||
           url.find("%DVID") != std::string::npos;
}

// Throws propertyapi::PropertyException if the phone is not known well enough.
std::string expanded(const std::string& url, const Options& options) {
    if (!hasPlaceholder(url)) return url;
    return zav::formatUrl(url, std::make_shared<PhoneProperties>(options.phone.value_or(Phone())));
}

void addFolder(const std::string& folder, std::vector<std::string>& files) {
    std::error_code error;
    std::vector<std::string> found;
    fs::recursive_directory_iterator entries(folder, fs::directory_options::skip_permission_denied, error);
    if (error) throw LintException(folder + ": cannot be read: " + error.message());
    for (; entries != fs::recursive_directory_iterator(); entries.increment(error)) {
        if (error) throw LintException(folder + ": cannot be read: " + error.message());
        std::error_code ignored;
        const fs::path& path = entries->path();
        if (strcasecmp(path.extension().c_str(), ".xml") == 0 && entries->is_regular_file(ignored))
            found.push_back(path.string());
    }
    std::sort(found.begin(), found.end());
    files.insert(files.end(), found.begin(), found.end());
}

// What a phone with this server asks for: provisioning.xml if the URL names no file. Without user and password.
std::string initialFileOf(const std::string& server, const Options& options) {
    const std::string shown = common::withoutPassword(server);
    try {
        return zav::makeUrlInfo(expanded(server, options)).text();
    } catch (const zav::UrlException&) {
        throw LintException(shown + ": is not a URL that the phone accepts");
    } catch (const propertyapi::PropertyException&) {
        throw LintException(shown + ": depends on the phone; write its MAC address or device ID, or use --as running");
    }
}

}  // namespace

Content readFile(const std::string& path) {
    std::ifstream file;
    if (path != "-") file.open(path, std::ios::binary);
    std::istream& stream = path == "-" ? std::cin : file;
    if (!stream) return {std::nullopt, "cannot be opened: " + common::reasonOf(errno)};
    constexpr std::size_t most = static_cast<std::size_t>(zav::XMLReader::maximumFileSize) + 1;
    std::string bytes;
    char buffer[65536];
    while (bytes.size() < most && (stream.read(buffer, sizeof buffer), stream.gcount() > 0)) {
        bytes.append(buffer, static_cast<std::size_t>(stream.gcount()));
    }
    if (stream.bad()) return {std::nullopt, "cannot be read: " + common::reasonOf(errno)};
    if (bytes.size() > most) bytes.resize(most);
    return {std::move(bytes), ""};
}

bool isUrl(const std::string& text) {
    return strncasecmp(text.c_str(), "http://", 7) == 0 || strncasecmp(text.c_str(), "https://", 8) == 0;
}

std::vector<std::string> listFiles(const std::vector<std::string>& paths, const Options& options) {
    std::vector<std::string> files;
    for (const std::string& path : paths) {
        std::error_code error;
        const fs::file_status status = path == "-" || isUrl(path) ? fs::file_status() : fs::status(path, error);
        if (status.type() == fs::file_type::not_found) throw LintException(path + ": does not exist");
        if (status.type() == fs::file_type::directory) {
            const std::size_t before = files.size();
            addFolder(path, files);
            if (files.size() == before) throw LintException(path + ": has no file whose name ends in .xml");
        } else {
            files.push_back(isUrl(path) ? initialFileOf(path, options) : path);
        }
    }
    return files;
}

Site::Site(std::string initial, const Options& options)
    : options_(options),
      isRemote_(isUrl(initial)),
      folder_(isRemote_ ? "" : folderOf(initial)),
      server_(isRemote_                 ? std::move(initial)
              : options.baseUrl.empty() ? anyServer
                                        : options.baseUrl) {}

std::string Site::expand(const std::string& url) const { return expanded(url, options_); }

Target Site::inFolder(const std::string& relative) const {
    Target target;
    for (const std::string& name : {relative, decoded(relative)}) {
        if (isSteppingOut(name)) continue;
        std::error_code error;
        const fs::path path(folder_ + name);
        const fs::file_status status = fs::status(path, error);
        if (target.file.empty() || fs::exists(status)) target.file = path.string();
        if (!fs::exists(status)) continue;
        target.exists = fs::is_regular_file(status);
        target.size = target.exists ? fs::file_size(path, error) : 0;
        break;
    }
    return target;
}

Target Site::resolve(const std::string& url, Reference::Kind kind) const {
    Target target;
    try {
        const zav::UrlInfo server = zav::makeUrlInfo(expand(server_));
        const std::string prefix = zav::serverPrefix(server);
        const zav::UrlInfo info = kind == Reference::Kind::redirect
                                      ? zav::makeUrlInfo(expand(url))
                                      : zav::UrlInfo(expand(zav::makeJobUrlInfo(url, prefix).text()));
        const std::string text = info.text();
        const bool isBelow = text.compare(0, prefix.size(), prefix) == 0;
        const bool isKnownServer = isRemote_ || !options_.baseUrl.empty() || url.front() == '/';
        if (!isBelow || !isKnownServer) {
            target.reason = "it is on another server";
            return target;
        }
        const bool overHttp = info.scheme() == "http" && (isRemote_ || !options_.baseUrl.empty());
        if (!isRemote_) {
            target = inFolder((info.path() + info.fileName()).substr(server.path().size()));
            const bool mayBeElsewhere = !target.exists && options_.fetch && isUrl(url);
            if (!mayBeElsewhere) {
                target.isReadableOnTheWay = overHttp;
                return target;
            }
        }
        target = Target();
        target.file = text;
        target.exists = true;
        target.isReadableOnTheWay = overHttp;
    } catch (const zav::UrlException&) {
        target.reason = "its URL is not valid";
    } catch (const propertyapi::PropertyException&) {
        target.reason = "its URL depends on the phone";
    }
    return target;
}

}  // namespace lint

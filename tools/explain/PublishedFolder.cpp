#include "explain/PublishedFolder.h"

#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string_view>

#include "explain/Explain.h"

namespace explain {

namespace {

namespace fs = std::filesystem;

constexpr long ok = 200;
constexpr long forbidden = 403;
constexpr long notFound = 404;

int hexadecimal(char c) {
    constexpr std::string_view digits = "0123456789abcdef";
    const auto at = digits.find(static_cast<char>(c >= 'A' && c <= 'F' ? c - 'A' + 'a' : c));
    return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

// As a server reads a path. Nothing if it names no file below the folder.
std::optional<std::string> decode(const std::string& path) {
    std::string decoded;
    for (std::size_t at = 0; at < path.size(); ++at) {
        char c = path[at];
        if (c == '%' && at + 2 < path.size() && hexadecimal(path[at + 1]) >= 0 && hexadecimal(path[at + 2]) >= 0) {
            c = static_cast<char>(hexadecimal(path[at + 1]) * 16 + hexadecimal(path[at + 2]));
            at += 2;
        }
        if (c == '\0') return std::nullopt;
        decoded += c;
    }
    if (("/" + decoded + "/").find("/../") != std::string::npos) return std::nullopt;
    return decoded;
}

unsigned portOf(const zav::UrlInfo& url) {
    if (url.port() != 0) return url.port();
    return url.scheme() == "https" ? 443 : 80;
}

bool isSameServer(const zav::UrlInfo& a, const zav::UrlInfo& b) {
    return a.scheme() == b.scheme() && portOf(a) == portOf(b) && strcasecmp(a.host().c_str(), b.host().c_str()) == 0;
}

zav::UrlInfo folderOf(const zav::UrlInfo& url) { return zav::UrlInfo(url.origin() + url.path()); }

bool isBelow(const zav::UrlInfo& url, const zav::UrlInfo& base) {
    return isSameServer(url, base) && url.path().compare(0, base.path().size(), base.path()) == 0;
}

}  // namespace

PublishedFolder::PublishedFolder(const std::string& source, const zav::UrlInfo& initial, const zav::UrlInfo& base)
    : initial_(initial), base_(folderOf(base)) {
    std::error_code error;
    const fs::file_status status = fs::status(source, error);
    if (fs::is_directory(status)) {
        folder_ = source.back() == '/' ? source : source + "/";
    } else if (fs::is_regular_file(status)) {
        initialFile_ = source;
        findFolderOf(source);
    } else {
        throw ExplainException(source + (fs::exists(status) ? ": is neither a file nor a folder" : ": does not exist"));
    }
}

void PublishedFolder::findFolderOf(const std::string& file) {
    folder_ = fs::path(file).has_parent_path() ? fs::path(file).parent_path().string() + "/" : "./";
    if (!isBelow(initial_, base_)) return;
    const auto below = decode(initial_.path().substr(base_.path().size()));
    std::error_code error;
    const std::string absolute = fs::absolute(folder_, error).lexically_normal().string();
    const bool isThere = below && absolute.size() > below->size() &&
                         absolute.compare(absolute.size() - below->size() - 1, std::string::npos, "/" + *below) == 0;
    if (!isThere) {
        base_ = folderOf(initial_);
    } else if (!below->empty()) {
        folder_ = absolute.substr(0, absolute.size() - below->size());
    }
}

std::string PublishedFolder::url() const { return base_.text(); }

bool PublishedFolder::isElsewhere(const std::string& url) const { return !isSameServer(zav::UrlInfo(url), base_); }

zav::LocalAnswer PublishedFolder::answer(const std::string& url) const {
    const zav::UrlInfo wanted(url);
    const bool isInitial =
        isSameServer(wanted, initial_) && wanted.path() == initial_.path() && wanted.fileName() == initial_.fileName();
    std::string file;
    if (isInitial && !initialFile_.empty()) {
        file = initialFile_;
    } else {
        if (!isBelow(wanted, base_)) return {notFound, ""};
        const auto name = decode(wanted.path().substr(base_.path().size()) + wanted.fileName());
        if (!name) return {notFound, ""};
        file = folder_ + *name;
    }
    std::error_code error;
    if (!fs::is_regular_file(file, error)) return {notFound, file};
    return {::access(file.c_str(), R_OK) == 0 ? ok : forbidden, file};
}

}  // namespace explain

#include <array>
#include <optional>

#include "Core/Utils.h"
#include "common/UrlSyntax.h"
#include "http/UrlInfo.h"
#include "lint/Checks.h"

namespace lint {

namespace {

constexpr std::array<const char*, 3> placeholders{"%MACC", "%MACD", "%DVID"};
constexpr std::size_t placeholderLength = 5;
// Where a path is resolved if nobody says where the files are published.
constexpr char anyServer[] = "http://server/";

bool isPlaceholderAt(const std::string& text, std::size_t at) {
    for (const char* placeholder : placeholders) {
        if (text.compare(at, placeholderLength, placeholder) == 0) return true;
    }
    return false;
}

Reference::Kind kindOf(UrlUse use) {
    switch (use) {
        case UrlUse::jobFile:
            return Reference::Kind::jobFile;
        case UrlUse::published:
            return Reference::Kind::published;
        case UrlUse::certificate:
            return Reference::Kind::certificate;
        case UrlUse::firmware:
            return Reference::Kind::firmware;
        case UrlUse::phoneBook:
            return Reference::Kind::phoneBook;
        default:
            return Reference::Kind::redirect;
    }
}

// The initial file of a pass, whose name may be left out.
bool isInitial(UrlUse use) { return use == UrlUse::redirect || use == UrlUse::server; }

std::optional<zav::UrlInfo> parse(const std::string& url, UrlUse use, const std::string& base) {
    try {
        if (isInitial(use)) return zav::makeUrlInfo(url);
        return zav::makeJobUrlInfo(url, base.empty() ? anyServer : base);
    } catch (const zav::UrlException&) {
        return std::nullopt;
    }
}

bool hasScheme(const std::string& url) { return url.find("://") != std::string::npos; }

// Whether the text was meant as a path: what would be the host is the name of a file or folder.
bool isPath(const std::string& url) {
    const std::size_t slash = url.find('/');
    const std::string host = url.substr(0, slash);
    const bool isFile = slash == std::string::npos;
    return host.find(':') == std::string::npos && (isFile || host.find('.') == std::string::npos) &&
           host.find('%') == std::string::npos;
}

// Returns whether there is a file to fetch.
bool checkParts(Checks& checks, std::size_t element, const std::string& attribute, const std::string& url,
                const zav::UrlInfo& info, UrlUse use) {
    const Place place = valueOf(element, attribute);
    if (info.scheme() != "http" && info.scheme() != "https") {
        checks.add(RuleId::urlScheme, place, quoted(info.scheme()) + " URLs are not fetched");
        return false;
    }
    if (!hasScheme(url) && url.front() != '/') {
        checks.add(RuleId::urlWithoutScheme, place,
                   quoted(common::withoutPassword(url)) + " is fetched over plain http");
    }
    if (!info.userInfo().empty() && use != UrlUse::server) {
        checks.add(RuleId::urlCredentials, place, "The credentials in this URL are never sent");
    }
    if (url.find('#') != std::string::npos) {
        checks.add(RuleId::urlFragment, place, "The fragment " + quoted(url.substr(url.find('#'))) + " is dropped");
    }
    if (const auto unknown = unknownPlaceholder(url)) {
        checks.add(RuleId::unknownPlaceholder, place, quoted(*unknown) + " is not a placeholder",
                   placeholderRemedy(*unknown));
    }
    const std::string& name = info.fileName();
    if (name.empty()) {
        checks.add(RuleId::urlWithoutFile, place, quoted(common::withoutPassword(url)) + " names no file");
        return false;
    }
    if (isInitial(use) && isPlaceholderAt(name, 0) && name.size() == placeholderLength) {
        checks.add(RuleId::macFolder, place, quoted(name) + " is taken for a file; a folder needs a \"/\" behind it",
                   "write " + quoted(common::withoutPassword(url) + "/"));
    } else if (zav::localFileName(name) != name) {
        checks.add(RuleId::fileNameChanges, place,
                   "On the phone " + quoted(name) + " is called " + quoted(zav::localFileName(name)));
    }
    return true;
}

}  // namespace

bool checkUrl(Checks& checks, std::size_t element, const std::string& attribute, const std::string& url, UrlUse use,
              bool isFetched) {
    const Place place = valueOf(element, attribute);
    if (use == UrlUse::redirect && !url.empty() && url.front() == '/') {
        checks.add(RuleId::redirectPath, place, "A redirect to the path " + quoted(url) + " fails");
        return false;
    }
    const auto info = parse(url, use, checks.options.baseUrl);
    if (!info) {
        const RuleId rule = use == UrlUse::server ? RuleId::serverUrl : RuleId::invalidUrl;
        checks.add(rule, place, quoted(common::withoutPassword(url)) + " is not a URL that the phone accepts");
        return false;
    }
    if (!isInitial(use) && !hasScheme(url) && url.front() != '/' && isPath(url)) {
        checks.add(RuleId::urlWithoutSlash, place, quoted(url) + " is read as the host " + quoted(info->host()),
                   "write " + quoted("/" + url));
        return true;
    }
    const bool isFetchable = checkParts(checks, element, attribute, url, *info, use);
    if (isFetchable && use != UrlUse::server) checks.links.push_back({kindOf(use), url, isFetched, place});
    return true;
}

}  // namespace lint

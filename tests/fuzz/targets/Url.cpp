// URLs with placeholders: the first line is the phone's MAC address, the second its device ID, the rest the text.
#include <algorithm>
#include <memory>

#include "common/Ascii.h"
#include "common/UrlSyntax.h"
#include "fakes/FakeProperties.h"
#include "fuzz/Promise.h"
#include "fuzz/Targets.h"
#include "http/FormatUrl.h"
#include "http/UrlInfo.h"

namespace fuzz {

namespace {

void checkLocalName(const std::string& text) {
    const std::string name = zav::localFileName(text);
    const auto isSafe = [](char c) {
        return common::isAsciiLetterOrDigit(c) || std::string("._%+=,@~-").find(c) != std::string::npos;
    };
    promise(std::all_of(name.begin(), name.end(), isSafe), "a local name has harmless characters");
    promise(name != "." && name != ".." && name.size() <= 200 && name[0] != '-', "a local name is only a name");
    promise(zav::localFileName(name) == name, "a local name stays as it is");
}

void checkPassword(const std::string& text) {
    const std::string shown = common::withoutPassword(text);
    promise(common::withoutPassword(shown) == shown, "a hidden password stays hidden");
    const auto syntax = common::parseUrl(text);
    if (!syntax) return;
    const auto colon = syntax->userInfo.find(':');
    const auto shownSyntax = common::parseUrl(shown);
    promise(shownSyntax.has_value(), "a URL without its password is a URL");
    if (colon == std::string::npos) {
        promise(shown == text, "a URL without a password stays as it is");
    } else {
        promise(shownSyntax->userInfo == syntax->userInfo.substr(0, colon) + ":***", "the password is hidden");
    }
}

void checkUrl(const std::string& text) {
    try {
        const zav::UrlInfo url(text);
        promise(common::parseUrl(text).has_value(), "both parsers accept it");
        promise(!url.host().empty() && url.port() <= 65535, "a URL has a host");
        promise(url.path().front() == '/' && url.path().back() == '/', "a path begins and ends with a slash");
        const zav::UrlInfo again(url.text());
        promise(again.text() == url.text() && again.host() == url.host() && again.port() == url.port() &&
                    again.path() == url.path() && again.fileName() == url.fileName() && again.query() == url.query(),
                "a URL survives being written");
        promise(again.userInfo().empty(), "a rebuilt URL has no userinfo");
        checkLocalName(url.fileName());
    } catch (const zav::UrlException&) {
        // libcurl may refuse what our syntax allows, such as the path "/%"... but not the other way round.
    }
}

}  // namespace

void url(const std::string& input) {
    const auto [macAddress, rest] = splitLine(input);
    const auto [deviceId, text] = splitLine(rest);
    checkLocalName(text);
    checkPassword(text);
    checkUrl(text);
    const auto properties = std::make_shared<fakes::FakeProperties>(
        fakes::FakeProperties::Values{{"NET.MAC.Address", macAddress}, {"System.General.DeviceID", deviceId}});
    const std::string expanded = zav::formatUrl(text, properties);
    promise(expanded == text || text.find('%') != std::string::npos, "only placeholders are expanded");
    checkUrl(expanded);
}

}  // namespace fuzz

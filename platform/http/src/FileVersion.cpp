#include "FileVersion.h"

#include <curl/curl.h>
#include <strings.h>

namespace zav {

namespace {

// A list of ETags is not one.
bool isStrong(const std::string& etag) {
    return etag.size() > 2 && etag.front() == '"' && etag.find('"', 1) == etag.size() - 1;
}

// A date has a comma after the name of the day, if any; another one joins two headers.
bool isSingleDate(const std::string& text) {
    const std::string longestDayName = "Wednesday";
    const auto comma = text.find(',');
    return comma == std::string::npos ||
           (comma <= longestDayName.size() && text.find(',', comma + 1) == std::string::npos);
}

bool differ(const std::string& a, const std::string& b) { return !a.empty() && !b.empty() && a != b; }

std::optional<std::uint64_t> parseNumber(const std::string& digits) {
    if (digits.empty() || digits.size() > 18 || digits.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    return std::stoull(digits);
}

}  // namespace

std::string FileVersion::strongValidator() const {
    // With an ETag, even a weak one, the date is not used.
    if (!etag.empty()) return isStrong(etag) ? etag : "";
    if (!isSingleDate(lastModified) || !isSingleDate(date)) return "";
    const time_t changed = curl_getdate(lastModified.c_str(), nullptr);
    const time_t sent = curl_getdate(date.c_str(), nullptr);
    return changed >= 0 && sent > changed ? lastModified : "";
}

bool FileVersion::isSameAs(const FileVersion& other) const {
    const std::string validator = strongValidator();
    if (validator.empty() || differ(etag, other.etag) || differ(lastModified, other.lastModified)) return false;
    return validator == other.etag || validator == other.lastModified;
}

std::optional<ContentRange> parseContentRange(const std::string& text) {
    const std::string unit = "bytes ";
    const auto dash = text.find('-');
    const auto slash = text.find('/');
    if (strncasecmp(text.c_str(), unit.c_str(), unit.size()) != 0 || dash == std::string::npos ||
        slash == std::string::npos || slash < dash) {
        return std::nullopt;
    }
    const auto first = parseNumber(text.substr(unit.size(), dash - unit.size()));
    const auto last = parseNumber(text.substr(dash + 1, slash - dash - 1));
    const auto total = parseNumber(text.substr(slash + 1));
    if (!first || !last || !total || *first > *last || *last >= *total) return std::nullopt;
    return ContentRange{*first, *last, *total};
}

}  // namespace zav

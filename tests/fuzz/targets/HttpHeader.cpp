// Headers of a download that decide about resuming and coding: the first line is the name of the file, then come ETag,
// Last-Modified, Date, Content-Encoding and Content-Range.
#include "ContentCoding.h"
#include "FileVersion.h"
#include "fuzz/Promise.h"
#include "fuzz/Targets.h"

namespace fuzz {

namespace {

void checkRange(const std::string& text) {
    const auto range = zav::parseContentRange(text);
    if (!range) return;
    promise(range->first <= range->last && range->last < range->total, "a range is within its total");
    const std::string again = "bytes " + std::to_string(range->first) + "-" + std::to_string(range->last) + "/" +
                              std::to_string(range->total);
    const auto same = zav::parseContentRange(again);
    promise(same && same->first == range->first && same->last == range->last && same->total == range->total,
            "a range survives being written");
}

}  // namespace

void http_header(const std::string& input) {
    std::string rest = input;
    const auto next = [&rest] {
        auto [line, others] = splitLine(rest);
        rest = others;
        return line;
    };
    const std::string fileName = next();
    const zav::FileVersion version{next(), next(), next()};
    const std::string validator = version.strongValidator();
    promise(validator.empty() || validator == version.etag || validator == version.lastModified,
            "a validator is one of the headers");
    promise(version.etag.empty() || validator.empty() || validator[0] == '"', "a weak tag is not a validator");
    promise(version.isSameAs(version) || validator.empty(), "a version with a validator equals itself");
    const std::string coding = next();
    promise(!coding.empty() || zav::isAcceptedCoding(coding, fileName), "no coding is accepted");
    static_cast<void>(zav::isAcceptedCoding(coding, fileName));
    checkRange(rest);
}

}  // namespace fuzz

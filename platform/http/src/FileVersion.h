// Identifies the version of a file, so that an interrupted download continues the same file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zav {

/// The headers of a response that identify the version of its file; empty if missing.
struct FileVersion {
    std::string etag;
    std::string lastModified;
    std::string date;

    /// The value for If-Range: a strong ETag, or if there is no ETag, a Last-Modified that is earlier than Date (a file
    /// that changes twice in one second keeps its date). Empty if there is neither.
    std::string strongValidator() const;

    /// Whether `other` has the same strong validator, and no header that differs.
    bool isSameAs(const FileVersion& other) const;
};

/// Where an interrupted download can be resumed.
struct ResumePoint {
    std::string url;  // that sent the bytes in the file
    FileVersion version;
    std::optional<std::uint64_t> total;  // bytes of the whole file, if known
};

/// "Content-Range: bytes FIRST-LAST/TOTAL"
struct ContentRange {
    std::uint64_t first;
    std::uint64_t last;
    std::uint64_t total;
};

/// Returns nothing for any other form, for an unknown total ("*") and for a range that is not within the total.
std::optional<ContentRange> parseContentRange(const std::string& text);

}  // namespace zav

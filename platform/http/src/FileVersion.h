// Which version of a file an answer carries, and whether a later answer continues it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zav {

/// The headers of one answer that tell the version of its file; empty where missing.
struct FileVersion {
    std::string etag;
    std::string lastModified;
    std::string date;

    /// What If-Range may carry: a strong ETag, or without any ETag one Last-Modified that lies before the answer's Date
    /// (a file that changes twice in a second keeps its date). Empty when neither is there.
    std::string strongValidator() const;

    /// Whether `other` is certainly of the same version: it repeats the strong validator and contradicts nothing.
    bool isSameAs(const FileVersion& other) const;
};

/// What a broken download may go on from.
struct ResumePoint {
    std::string url;  // of the answer that the bytes so far came with
    FileVersion version;
    std::optional<std::uint64_t> total;  // bytes of the whole file, once a server has said
};

/// "Content-Range: bytes FIRST-LAST/TOTAL"
struct ContentRange {
    std::uint64_t first;
    std::uint64_t last;
    std::uint64_t total;
};

/// Nothing for any other form, an unknown total ("*") and a range that does not lie within its total.
std::optional<ContentRange> parseContentRange(const std::string& text);

}  // namespace zav

// The files that lint is given, and where the files are that they refer to.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lint/Inspection.h"
#include "lint/Lint.h"

namespace lint {

/// What was read of a file: its bytes, or why there are none.
struct Content {
    std::optional<std::string> bytes;
    std::string error;
};

/// Up to one byte more than a provisioning file may have.
Content readFile(const std::string& path);

bool isUrl(const std::string& text);

/// The files that the arguments stand for: files themselves, of folders the ".xml" files below them, sorted, and of
/// URLs what a phone with this server asks for. Throws LintException for a path that does not exist or cannot be read,
/// and for a URL that is invalid or depends on a phone that is not known.
std::vector<std::string> listFiles(const std::vector<std::string>& paths, const Options& options);

/// Where a reference leads to.
struct Target {
    std::string file;                 // a path or a URL; empty: not followed
    std::string reason;               // why it is not followed
    bool exists = false;              // of a path
    std::uint64_t size = 0;           // of a path
    bool isReadableOnTheWay = false;  // fetched over plain http
};

/// Resolves the references of a pass, whose initial file is `initial`.
class Site {
 public:
    Site(std::string initial, const Options& options);
    Target resolve(const std::string& url, Reference::Kind kind) const;

 private:
    std::string expand(const std::string& url) const;
    Target inFolder(const std::string& relative) const;

    const Options& options_;
    const bool isRemote_;
    const std::string folder_;  // ends in "/" unless it is empty; of local files
    const std::string server_;  // URL of the initial file; may be made up
};

}  // namespace lint

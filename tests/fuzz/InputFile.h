// Files for code that takes a path, in the folder for temporary files.
#pragma once

#include <string>

namespace fuzz {

/// Removed at the end.
class TemporaryFile {
 public:
    /// Throws std::system_error if the file cannot be made or written.
    explicit TemporaryFile(const std::string& content = {});
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    void write(const std::string& content) const;
    const std::string& path() const { return path_; }

 private:
    std::string path_;
};

/// The path of the input, one file per process, which now has this content. Throws like TemporaryFile.
const std::string& inputFile(const std::string& content);

}  // namespace fuzz

// The file of a running download: a temporary file beside the destination, which replaces the destination in one step
// or is removed. Not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "common/Descriptor.h"

namespace zav {

class PartialFile {
 public:
    /// Creates the folders of the destination (0700) and the temporary file (0600). Removes an earlier temporary file;
    /// does not follow a symbolic link. Throws std::system_error on failure, and if the destination ends with "/" or
    /// contains "..".
    explicit PartialFile(const std::string& destination);

    /// Removes the temporary file unless it was committed.
    ~PartialFile();

    /// Whether `name` is the name of such a temporary file.
    static bool isPartialName(const std::string& name);

    /// Bytes written so far.
    std::uint64_t size() const { return size_; }

    // These throw std::system_error.

    /// Bytes that an unprivileged process could still write to the file system.
    std::uint64_t freeBytes() const;

    void append(const char* data, std::size_t length);

    /// Empties the file.
    void restart();

    enum class Sync { no, yes };

    /// Syncs the file, replaces the destination with it and syncs the folder. Blocks on the disk; without the syncs the
    /// file may be lost or empty after a crash of the system.
    void commit(Sync sync = Sync::yes);

 private:
    const std::string destination_;
    std::string name_;           // of the destination, within its folder
    std::string temporaryName_;  // within the same folder
    common::Descriptor folder_;
    common::Descriptor file_;
    std::uint64_t size_ = 0;
    bool committed_ = false;
};

}  // namespace zav

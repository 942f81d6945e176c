// A file that is being downloaded: a temporary one beside its destination, which takes the destination's place in one
// step or vanishes. For one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zav {

class PartialFile {
 public:
    /// Makes the destination's folder (0700) and the temporary file (0600) in it; one left behind earlier is removed
    /// first, a link is never followed. Throws std::system_error when that cannot be done, also for a destination that
    /// ends with "/" or climbs with "..".
    explicit PartialFile(const std::string& destination);

    /// Removes the temporary file unless it was committed.
    ~PartialFile();
    PartialFile(const PartialFile&) = delete;
    PartialFile& operator=(const PartialFile&) = delete;

    /// Whether a file of that name is a temporary one of this class.
    static bool isPartialName(const std::string& name);

    /// Bytes written so far.
    std::uint64_t size() const { return size_; }

    /// Bytes that could still be written to the folder's file system by an ordinary process.
    std::uint64_t freeBytes() const;

    void append(const char* data, std::size_t length);

    /// Empties the file.
    void restart();

    /// Syncs the file, puts it in the destination's place and syncs the folder. Blocks for the disk.
    void commit();

 private:
    const std::string destination_;
    std::string name_;       // of the destination, within its folder
    std::string temporary_;  // likewise
    int folder_ = -1;
    int file_ = -1;
    std::uint64_t size_ = 0;
    bool committed_ = false;
};

}  // namespace zav

// The folder that files are published into. Files are staged first, in a hidden folder inside it that nobody else may
// enter, and then renamed to their places, so that a reader sees each file whole, old or new, whenever the program is
// killed and whenever the disk is full. What a killed run has left is removed by the next one. One process at a time
// writes to a folder.
//
// Threads: stage functions from any thread; everything else by the owner.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

#include "common/Descriptor.h"

namespace pack {

/// A file that waits to be renamed to its place.
struct Staged {
    std::string temporary;  // path
    std::string name;       // path below the output folder
};

/// Who may read what is written: everybody, less the process's umask, or the owner only.
enum class Access { everybody, owner };

/// Why `name` cannot be written below `folder`: something that is not a regular file has that name, or something that
/// is not a folder is above it. "" if it can be. Never follows a symbolic link.
std::string obstacle(const std::string& folder, const std::string& name);

class Output {
 public:
    /// Creates the folder if only its last step is missing. Throws Error if it cannot be written to, or another process
    /// is writing to it.
    Output(std::string folder, Access access);
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    ~Output();

    /// Write a file, or copy one. Throw Error.
    Staged stage(const std::string& name, const std::string& bytes);
    Staged stageCopy(const std::string& name, const std::string& source);

    /// Puts all files in their places, in this order, once their bytes are on the disk. `progress` is told how many are
    /// done. Throws Error, which says how many files were published before.
    void publish(const std::vector<Staged>& files, const std::function<void(std::size_t)>& progress);

    /// Removes published files, and folders that become empty. Throws Error.
    void remove(const std::vector<std::string>& names);

 private:
    void lock();
    void makeParents(const std::string& name);
    common::Descriptor create(std::string& path);
    void finish(const common::Descriptor& file, const std::string& name) const;
    void syncAll() const;
    void rename(const Staged& file, common::Descriptor& replaced);

    const std::string folder_;
    const std::string staging_;
    const mode_t fileMode_;
    const mode_t folderMode_;
    common::Descriptor lock_;  // the staging folder
    std::atomic<std::uint64_t> count_{0};
    std::unordered_set<std::string> madeFolders_;
};

}  // namespace pack

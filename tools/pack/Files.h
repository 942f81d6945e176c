// Reading files and folders for publication. All functions may be called from any thread and block for the disk.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace pack {

/// The whole file. Throws Error if it cannot be read, is not a regular file, or has more than `limit` bytes.
std::string readFile(const std::string& path, std::uint64_t limit);

/// The first `count` bytes of the file, or all that there are. Throws Error if it cannot be read.
std::string readBeginning(const std::string& path, std::size_t count);

/// Whether both are regular files with the same bytes; false if the second one cannot be opened. Throws Error if one of
/// them cannot be read.
bool sameContent(const std::string& path, const std::string& other);

/// Identifies the state of a file, so that a change while the command runs is noticed.
struct FileState {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint64_t size = 0;
    std::int64_t modifiedSeconds = 0;
    std::int64_t modifiedNanoseconds = 0;
    bool operator==(const FileState& other) const;
};

/// Follows symbolic links. Throws Error if there is no such file.
FileState stateOf(const std::string& path);

/// What is wrong with one file.
struct Problem {
    std::string file;
    std::string reason;
};

struct Folder {
    std::vector<std::string> files;   // paths below the folder, sorted
    std::vector<std::string> hidden;  // entries whose name begins with "."; neither read nor descended into
    std::vector<Problem> problems;    // entries that cannot be published, with the reason
};

/// Lists a folder that is to be published. A symbolic link to a file inside the folder counts as that file; any other
/// link, a special file and a name that is not printable UTF-8 are problems. Throws Error if the folder itself cannot
/// be read.
Folder listFolder(const std::string& folder);

/// All that is in a published folder and not hidden, links included; empty if there is no such folder.
std::vector<std::string> listPublished(const std::string& folder);

/// The text for people and JSON: control bytes and malformed UTF-8 as \xNN.
std::string printable(const std::string& name);

}  // namespace pack

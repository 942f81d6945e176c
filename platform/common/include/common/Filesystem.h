// Operations on whole folders. Links are not followed. Where memory fails they throw std::bad_alloc or report ENOMEM;
// the standard library's iterators over folders would end the process.
#pragma once

#include <string>
#include <vector>

namespace filesystem {

/// Removes everything in the folder, but not the folder itself. Symbolic links are removed, not followed. A folder that
/// does not exist is not an error. Throws std::filesystem::filesystem_error if the folder cannot be read, or if an
/// entry cannot be removed; all other entries are removed first.
void removeAllFromDirectory(const std::string& directory);

struct Entry {
    std::string path;        // with the folder
    bool isRegular = false;  // otherwise a link, a pipe, a socket or a device
};

/// All that is not a folder in the folder and, if wanted, in its subfolders. What cannot be read is left out.
std::vector<Entry> entriesOf(const std::string& folder, bool withSubfolders);

}  // namespace filesystem

// Operations on whole folders.
#pragma once

#include <string>

namespace filesystem {

/// Removes everything in the folder, but not the folder itself. Symbolic links are removed, not followed. A folder that
/// does not exist is not an error. Throws std::filesystem::filesystem_error if the folder cannot be read, or if an
/// entry cannot be removed; all other entries are removed first.
void removeAllFromDirectory(const std::string& directory);

}  // namespace filesystem

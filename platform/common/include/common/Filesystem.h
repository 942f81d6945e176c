// What the device does with whole folders.
#pragma once

#include <string>

namespace filesystem {

/// Removes everything in the folder, sub-folders included, and leaves the folder itself. Links are removed, never
/// followed. A folder that does not exist is empty already. Throws std::filesystem::filesystem_error when something
/// cannot be removed; the rest has then been tried all the same.
void removeAllFromDirectory(const std::string& directory);

}  // namespace filesystem

// The input as a file, for code that takes a path. One file per process, in the folder for temporary files, replaced by
// each input and removed at the end.
#pragma once

#include <string>

namespace fuzz {

/// The path of the file, which now has this content. Throws std::system_error if it cannot be written.
const std::string& inputFile(const std::string& content);

}  // namespace fuzz

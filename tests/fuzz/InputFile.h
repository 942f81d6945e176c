// The input and the phone's key as files, for code that takes a path: one of each per process, in the folder for temporary
// files, removed at the end.
#pragma once

#include <string>

namespace fuzz {

/// The path of the file, which now has this content. Throws std::system_error if it cannot be written.
const std::string& inputFile(const std::string& content);

/// The path of a file with the pass phrase "phrase".
const std::string& keyFile();

}  // namespace fuzz

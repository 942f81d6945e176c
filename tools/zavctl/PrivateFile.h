// Writes a file that holds secrets.
//
// A regular file is written whole or not at all, with mode 0600, and replaced only on request. A pipe or a character
// device takes the text as it is; nothing is replaced then. Links to files, folders, block devices and sockets are
// refused. Throws a Failure that names the path and the reason, write errors included.
#pragma once

#include <string>

namespace zavctl {

void writePrivateFile(const std::string& path, const std::string& text, bool replace);

}  // namespace zavctl

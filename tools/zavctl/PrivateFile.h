// Writes a file that holds secrets.
//
// A regular file is written completely or not at all, with mode 0600; an existing one is replaced only with `replace`.
// Text for a pipe or a character device is written to it, whatever `replace` says. Symbolic links to files,
// directories, block devices and sockets are refused. Throws a Failure with the path and the reason, also for write
// errors.
#pragma once

#include <string>

namespace zavctl {

void writePrivateFile(const std::string& path, const std::string& text, bool replace);

}  // namespace zavctl

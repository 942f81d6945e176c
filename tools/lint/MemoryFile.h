// A file that exists in memory only.
#pragma once

#include <string>

#include "common/Descriptor.h"

namespace lint {

/// Open for reading and writing, positioned at its beginning. Throws LintException if there is no memory.
common::Descriptor memoryFile(const std::string& bytes);

/// All that the file holds.
std::string contentOf(const common::Descriptor& file);

/// A path under which the processes of this user can open it.
std::string pathOf(const common::Descriptor& file);

}  // namespace lint

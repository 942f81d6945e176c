// Checks that all commands of this library share, before anything is read or written.
#pragma once

#include <string>
#include <vector>

namespace pack {

/// Throws Error if one of the folders is inside the other or is the same, or if the key file is in one of them, where
/// it would be published or could be removed. `to` need not exist yet.
void checkFolders(const std::string& from, const std::string& to, const std::string& keyFile);

/// Throws Error if one of these files is in the output folder, where it would be published.
void checkOutsideOf(const std::string& to, const std::vector<std::string>& files);

/// Why a published file below the output folder cannot have this name: a step of it is empty, hidden or too long; "" if
/// it can.
std::string problemOfName(const std::string& name);

}  // namespace pack

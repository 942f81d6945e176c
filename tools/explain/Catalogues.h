// Where the catalogue of a phone is found on this machine.
#pragma once

#include <string>

namespace explain {

/// `named`, unless it is empty; else that of the source tree which the running program was built in, or the installed
/// catalogue. Does not check that the file can be read.
std::string catalogueFile(const std::string& named);

}  // namespace explain

// Where the catalogue of keys is that commands read which need no phone.
#pragma once

#include <string>

namespace zavctl {

/// The path of the installed catalogue; for a program that runs in its build tree, that of the source tree.
std::string defaultCatalogue();

}  // namespace zavctl
